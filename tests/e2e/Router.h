// Entries of the router pipeline (examples/router), as the stories write them.
#pragma once

#include <cstdint>

#include "tests/support/Pipeline.h"

namespace Router {

using TestSupport::EntryOf;
using TestSupport::Pipeline;

constexpr const char* routeTable = "ipv4_route";
constexpr const char* aclTable = "acl";

inline Pipeline pipeline() { return Pipeline(KORVEL_ROUTER_PIPELINE); }

// The platform's name of a P4 table, by which forwarder and commands know it.
inline std::string rowTable(const std::string& table) {
  const Pipeline router = pipeline();
  return router.rowTable(router.table(table).preamble().id());
}

// Route number `i`: a /24 of its own.
inline p4::v1::TableEntry route(const Pipeline& pipeline, uint32_t i, uint32_t nexthop) {
  return EntryOf(pipeline, routeTable)
      .exact("vrf_id", 1)
      .lpm("ipv4_dst", uint64_t{i} << 8, 24)
      .action("set_nexthop", {{"nexthop_id", nexthop}});
}

// ACL rule number `i`, which drops one source; the number is its priority too.
inline p4::v1::TableEntry aclRule(const Pipeline& pipeline, uint32_t i) {
  return EntryOf(pipeline, aclTable)
      .ternary("src_ip", 0x0a000000 + i, 0xffffffff)
      .priority(static_cast<int>(i + 1))
      .action("acl_drop");
}

}  // namespace Router
