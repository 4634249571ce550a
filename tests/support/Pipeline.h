// A pipeline file, looked up by the names of its P4Info, and table entries spelt with them.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "p4/v1/p4runtime.pb.h"

namespace TestSupport {

// The shortest big-endian form of a number, as P4Runtime wants it.
std::string canonicalBytes(uint64_t value);
// `value` in (bitwidth + 7) / 8 big-endian bytes.
std::string paddedBytes(const std::string& value, int bitwidth);

// Immutable but for xSizeIs(). Looking up a name that is not there throws std::out_of_range with
// it.
class Pipeline {
 public:
  explicit Pipeline(const std::string& path);  // throws std::runtime_error

  const p4::config::v1::P4Info& p4info() const { return request_.config().p4info(); }
  const p4::config::v1::Table& table(const std::string& name) const;
  const p4::config::v1::Table& table(uint32_t id) const;
  const p4::config::v1::Action& action(const std::string& name) const;
  const p4::config::v1::Action& action(uint32_t id) const;
  const p4::config::v1::ActionProfile& profile(const std::string& name) const;

  // The platform's name of a P4 table: its rows stand under it. A profile has two tables.
  const std::string& rowTable(uint32_t tableId) const { return rowTables_.match.at(tableId); }
  struct RowTables {
    using ById = std::map<uint32_t, std::string>;
    ById match;    // by P4 table
    ById members;  // by action profile
    ById groups;
  };
  const RowTables& rowTables() const { return rowTables_; }

  // For tests that need a pipeline like the one given, but for one thing.
  void tableSizeIs(const std::string& name, int64_t size);
  void profileSizeIs(const std::string& name, int64_t size);
  p4::v1::SetForwardingPipelineConfigRequest& request() { return request_; }
  void written(const std::string& path) const;

 private:
  p4::v1::SetForwardingPipelineConfigRequest request_;
  RowTables rowTables_;
};

// Spells a table entry: entryOf(pipeline, "ipv4_route").lpm("dst", 0x0a000000, 8).action("drop").
class EntryOf {
 public:
  EntryOf(const Pipeline& pipeline, const std::string& table);
  EntryOf& exact(const std::string& field, uint64_t value);
  EntryOf& exactBytes(const std::string& field, const std::string& value);
  EntryOf& lpm(const std::string& field, uint64_t value, int prefixLength);
  EntryOf& ternary(const std::string& field, uint64_t value, uint64_t mask);
  EntryOf& priority(int priority);
  EntryOf& action(const std::string& name, const std::map<std::string, uint64_t>& params = {});
  // The member, group or set of an entry that has no action of its own.
  EntryOf& member(uint32_t id);
  EntryOf& group(uint32_t id);
  EntryOf& oneShot();  // a set without elements yet
  EntryOf& oneOf(const std::string& action, const std::map<std::string, uint64_t>& params,
                 int weight);
  EntryOf& meter(int64_t cir, int64_t cburst, int64_t pir, int64_t pburst);
  EntryOf& metadata(const std::string& bytes);

  const p4::v1::TableEntry& entry() const { return entry_; }
  operator p4::v1::TableEntry() const { return entry_; }

 private:
  p4::v1::FieldMatch& match(const std::string& field);

  const Pipeline& pipeline_;
  const p4::config::v1::Table& table_;
  p4::v1::TableEntry entry_;
};

p4::v1::Action actionOf(const Pipeline& pipeline, const std::string& name,
                        const std::map<std::string, uint64_t>& params);
p4::v1::ActionProfileMember memberOf(const Pipeline& pipeline, const std::string& profile,
                                     uint32_t id, const std::string& action = "",
                                     const std::map<std::string, uint64_t>& params = {});
p4::v1::ActionProfileGroup groupOf(const Pipeline& pipeline, const std::string& profile,
                                   uint32_t id, const std::map<uint32_t, int>& weights = {});

}  // namespace TestSupport
