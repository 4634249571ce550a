// Entries of the router pipeline (examples/router), as the stories write them.
#pragma once

#include <cstdint>

#include "tests/support/Pipeline.h"

namespace Router {

using TestSupport::EntryOf;
using TestSupport::Pipeline;

constexpr const char* routeTable = "ipv4_route";
constexpr const char* aclTable = "acl";
constexpr const char* wcmpTable = "wcmp";  // of the profile below; so is the next
constexpr const char* wcmpProfile = "wcmp_selector";
constexpr const char* lagTable = "lag";
constexpr const char* lagProfile = "lag_selector";

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
inline EntryOf aclRule(const Pipeline& pipeline, uint32_t i) {
  return EntryOf(pipeline, aclTable)
      .ternary("src_ip", 0x0a000000 + i, 0xffffffff)
      .priority(static_cast<int>(i + 1))
      .action("acl_drop");
}

// Member and group number `id` of the WCMP profile, and an entry of its table that names nothing.
inline p4::v1::ActionProfileMember member(const Pipeline& pipeline, uint32_t id, uint32_t nexthop) {
  return TestSupport::memberOf(pipeline, wcmpProfile, id, "set_nexthop", {{"nexthop_id", nexthop}});
}
inline p4::v1::ActionProfileGroup group(const Pipeline& pipeline, uint32_t id,
                                        const std::map<uint32_t, int>& weights) {
  return TestSupport::groupOf(pipeline, wcmpProfile, id, weights);
}
inline EntryOf wcmp(const Pipeline& pipeline, uint32_t i) {
  return EntryOf(pipeline, wcmpTable).exact("wcmp_id", i);
}

// Bundle number `i` with a one-shot set: port `first` with weight 1, the next with weight 2, ...
inline EntryOf lag(const Pipeline& pipeline, uint32_t i, uint32_t first, uint32_t links) {
  EntryOf entry = EntryOf(pipeline, lagTable).exact("port", i).oneShot();
  for (uint32_t link = 0; link < links; ++link) {
    entry.oneOf("set_port", {{"port", first + link}}, static_cast<int>(link + 1));
  }
  return entry;
}

}  // namespace Router
