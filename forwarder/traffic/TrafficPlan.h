// The tables that synthetic packets meet, worked out once for as long as the tables stay the same.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "forwarder/follow/ForwardingAgent.h"
#include "forwarder/traffic/PacketHeader.h"

namespace Forwarder {

// A header field that some table matches on; tables share it by name.
using FieldNumber = uint32_t;

// The columns in which a row of an action profile's table names its member or group.
struct IndirectColumns {
  uint32_t idOffset = 0;       // of indirect_id in a packed value
  uint32_t isGroupOffset = 0;  // of is_group
  // Nothing for a table whose rows hold their action.
  static std::optional<IndirectColumns> of(const Lattice::TableType& type);
};

struct PlannedTable {
  const ProgrammedTable* table = nullptr;
  std::vector<FieldNumber> fields;  // one for each of the layout's
  std::optional<IndirectColumns> indirect;
  std::vector<size_t> covered;  // other tables, all of whose fields are among these
};

// Threads: one at a time. Lifetime: it borrows the agent's tables and the given headers, and must
// be made again once agent.tablesVersion() has moved.
class TrafficPlan {
 public:
  TrafficPlan() = default;
  TrafficPlan(const ForwardingAgent& agent, const std::vector<PacketHeader>& headers);

  uint64_t version() const { return version_; }
  const std::vector<PlannedTable>& tables() const { return tables_; }  // that packets meet
  size_t fieldCount() const { return fields_.size(); }
  struct PlannedHeader {
    std::vector<std::pair<FieldNumber, const FieldValue*>> fields;
    std::vector<size_t> tables;  // that match on one of the fields
  };
  const std::vector<PlannedHeader>& headers() const { return headers_; }
  // Members and groups of all action profiles; their ids are unique in the agent.
  const StoredRow* member(uint32_t id) const { return findRow(members_, id); }
  const StoredRow* group(uint32_t id) const { return findRow(groups_, id); }

 private:
  using Rows = std::vector<const MatchTable*>;
  static const StoredRow* findRow(const Rows& tables, uint32_t id);
  FieldNumber fieldNumber(const std::string& name);
  void addTable(const ProgrammedTable& table);
  void addHeader(const PacketHeader& header);

  uint64_t version_ = 0;
  std::map<std::string, FieldNumber> fields_;
  std::vector<PlannedTable> tables_;
  std::vector<PlannedHeader> headers_;
  Rows members_;
  Rows groups_;
};

}  // namespace Forwarder
