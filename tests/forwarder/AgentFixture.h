// A forwarding agent whose rows the test writes by hand, with the tables "route" and "acl".
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <string>
#include <utility>

#include "forwarder/follow/ForwardingAgent.h"
#include "tests/forwarder/Packing.h"

namespace ForwarderTest {

// Counter columns: as written by a controller, or not.
inline std::string counter(std::optional<std::pair<uint64_t, uint64_t>> bytesAndPackets = {}) {
  const auto [bytes, packets] = bytesAndPackets.value_or(std::pair<uint64_t, uint64_t>());
  return little(bytesAndPackets ? 1 : 0, 1) + little(bytes, 8) + little(packets, 8);
}

class AgentFixture : public testing::Test {
 protected:
  const Lattice::FollowedTable& table(const char* name, const char* definition) {
    auto& table = tables_[name];
    if (table.name.empty()) {
      table = {name, Lattice::TableType::compile(name, definition)};
      agent_.tableAdded(table);
    }
    return table;
  }
  const Lattice::FollowedTable& routes() {
    return table("route",
                 "key vrf : U16; key dst : IpGenPrefix;"
                 "action { forward 7 { port : U16; } drop 8 { none : Void; } } counter;");
  }
  const Lattice::FollowedTable& acl() {
    return table("acl",
                 "key dst : IpAddr value; key dst_mask : IpAddr mask; key proto : U8;"
                 "key priority : U32 priority; drop : U8; counter;");
  }
  void write(const Lattice::FollowedTable& table, const std::string& key, const std::string& value,
             uint64_t handle) {
    agent_.rowChanged({.table = &table,
                       .key = key,
                       .value = value,
                       .entryHandle = handle,
                       .sequence = ++sequence_});
  }
  void erase(const Lattice::FollowedTable& table, const std::string& key) {
    agent_.rowChanged({.table = &table, .key = key, .deleted = true, .sequence = ++sequence_});
  }
  void route(const char* address, unsigned length, uint64_t handle,
             const std::string& counted = counter(), uint16_t port = 1) {  // 0: drop
    const std::string action = port == 0 ? little(8, 4) : little(7, 4) + little(port, 2);
    write(routes(), big(1, 2) + prefix(address, length), action + counted, handle);
  }
  Forwarder::RowFlow flow(const char* name, uint64_t handle) {
    Forwarder::RowFlow found;
    const Forwarder::MatchTable& rows = *agent_.table(name)->rows();
    rows.forEach([&](const Forwarder::StoredRow& row) {
      if (rows.flow(row)->entryHandle == handle) found = *rows.flow(row);
    });
    return found;
  }

  Forwarder::ReportQueue reports_;
  Forwarder::ForwardingAgent agent_{reports_};
  std::map<std::string, Lattice::FollowedTable> tables_;
  uint64_t sequence_ = 0;
};

}  // namespace ForwarderTest
