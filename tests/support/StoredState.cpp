// See StoredState.h.
#include "tests/support/StoredState.h"

#include <fmt/format.h>

#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string_view>

#include "platform/brine/Reader.h"
#include "platform/lattice/records/StoreLayout.h"
#include "platform/lattice/types/TableType.h"

namespace TestSupport {
namespace {

// Rows of members and groups are written and reported under this bit and their own handle.
constexpr uint64_t profileBit = uint64_t{1} << 63;

// A handle's lower half keys the row of a member or group.
uint32_t rowId(uint64_t handle) { return static_cast<uint32_t>(handle); }
bool isGroup(uint64_t handle) { return handle >> 32 == 1; }

// Reads a packed, little-endian record from front to back.
class Cursor {
 public:
  explicit Cursor(std::string_view bytes) : rest_(bytes) {}

  template <typename Number>
  Number number() {
    Number value{};
    const std::string_view bytes = take(sizeof value);
    if (intact_) std::memcpy(&value, bytes.data(), sizeof value);
    return value;
  }
  std::string_view counted() { return take(number<uint32_t>()); }
  template <typename Number>
  std::vector<Number> numbers() {
    std::vector<Number> values;
    for (auto count = number<uint32_t>(); intact_ && count > 0; --count) {
      values.push_back(number<Number>());
    }
    return values;
  }
  std::string_view take(size_t size) {
    if (rest_.size() < size) intact_ = false;
    if (!intact_) return {};
    const std::string_view taken = rest_.substr(0, size);
    rest_.remove_prefix(size);
    return taken;
  }
  std::string_view rest() { return take(rest_.size()); }
  bool whole() const { return intact_ && rest_.empty(); }

 private:
  std::string_view rest_;
  bool intact_ = true;
};

struct EntryRecord {
  std::string table;
  std::string key;
  std::string action;
  uint64_t indirect = 0;  // 0: has an action
};
struct MemberRecord {
  std::string table;
  uint32_t id = 0;  // the controller's; 0: hidden
  std::string action;
};
struct GroupRecord {
  std::string table;
  uint32_t id = 0;  // the controller's; 0: hidden
  std::vector<uint64_t> members;
};
struct StoredRow {
  std::string table;
  std::string value;
  std::optional<Lattice::MeterColumns> meter;
};

class StateReader {
 public:
  StateReader(const Pipeline& pipeline, const std::string& stateDirectory)
      : tables_(pipeline.rowTables()),
        reader_(Brine::Reader::open(stateDirectory)),
        snapshot_(reader_->snapshot()) {}

  StoredState state() {
    forEachRecord("actionProfileMember", [this](Cursor& cursor) { return addMember(cursor); });
    forEachRecord("actionProfileGroup", [this](Cursor& cursor) { return addGroup(cursor); });
    for (const auto& [id, table] : tables_.match) addRows(table, true);
    for (const auto& [id, table] : tables_.members) addRows(table);
    for (const auto& [id, table] : tables_.groups) addRows(table);
    for (const auto& [handle, entry] : entries_) compareEntry(handle, entry);
    for (const auto& [handle, member] : members_) compareMember(handle, member);
    for (const auto& [handle, group] : groups_) compareGroup(handle, group);
    for (const auto& [handle, row] : rows_)
      fault("{:#x}: row of {} without a record", handle, row.table);
    findOrphans();
    return std::move(state_);
  }

 private:
  template <typename... Parts>
  void fault(fmt::format_string<Parts...> format, Parts&&... parts) {
    state_.faults.push_back(fmt::format(format, std::forward<Parts>(parts)...));
  }

  template <typename Add>
  void forEachRecord(const std::string& cache, Add add) {
    snapshot_->forEach("p4runtime/cache/" + cache, [&](Brine::Bytes, Brine::Bytes record) {
      Cursor cursor(Brine::asText(record));
      if (!add(cursor)) {
        fault("damaged record of {}: {}", cache, Words::hex(Brine::asText(record)));
      }
      return true;
    });
  }

  // Of a row, behind which it stands.
  bool addEntry(const std::string& table, const Brine::Record& row) {
    Cursor cursor(Brine::asText(row.attachment));
    const auto flags = cursor.number<uint8_t>();
    EntryRecord entry{.table = table};
    uint32_t actionId = 0;
    if (flags & 1) {
      entry.indirect = cursor.number<uint64_t>();
    } else {
      actionId = cursor.number<uint32_t>();
    }
    const auto priority = flags & 2 ? cursor.number<int32_t>() : 0;
    if (flags & 4) cursor.number<uint64_t>();  // controller metadata
    const std::string_view key = cursor.take(cursor.number<uint16_t>());
    entry.action = Words::action(actionId, cursor.rest());
    if (!cursor.whole() || flags > 7) return false;
    entry.key = Words::entryKey(table, key, priority);
    if (snapshot_->isUnsettled(row)) ++state_.unstable;
    return entries_.emplace(row.owner, std::move(entry)).second;
  }

  // Each takes the record's key first: resource type, resource id, handle.
  bool addMember(Cursor& cursor) {
    cursor.number<uint32_t>();
    const auto table = tables_.members.find(cursor.number<uint32_t>());
    cursor.number<uint64_t>();
    const auto actionId = cursor.number<uint32_t>();
    MemberRecord member{.id = cursor.number<uint32_t>()};
    const auto handle = cursor.number<uint64_t>();
    member.action = Words::action(actionId, cursor.counted());
    if (!cursor.whole() || table == tables_.members.end()) return false;
    member.table = table->second;
    return members_.emplace(handle, std::move(member)).second;
  }

  bool addGroup(Cursor& cursor) {
    cursor.number<uint32_t>();
    const auto table = tables_.groups.find(cursor.number<uint32_t>());
    cursor.number<uint64_t>();
    GroupRecord group{.id = cursor.number<uint32_t>()};
    const auto handle = cursor.number<uint64_t>();
    group.members = cursor.numbers<uint64_t>();
    if (!cursor.whole() || table == tables_.groups.end()) return false;
    group.table = table->second;
    return groups_.emplace(handle, std::move(group)).second;
  }

  void addRows(const std::string& table, bool haveRecords = false) {
    const auto bytes = snapshot_->get(Lattice::typesTable, Brine::asBytes(table));
    const auto record = bytes ? Lattice::TableRecord::decode(Brine::asText(*bytes)) : std::nullopt;
    if (!record) return;
    const auto type = Lattice::TableType::compile(record->typeName, record->definition);
    snapshot_->forEachRecord(Lattice::rowTable(table), [&](const Brine::Record& row) {
      addRow(table, *type, row);
      if (haveRecords && !addEntry(table, row)) {
        fault("damaged record of {}: {}", table, Words::hex(Brine::asText(row.attachment)));
      }
      return true;
    });
  }

  void addRow(const std::string& table, const Lattice::TableType& type, const Brine::Record& row) {
    const std::string value(Brine::asText(row.value));
    try {
      state_.rows[table + " " + joined(keyTexts(type, Brine::asText(row.key)))] =
          joined(valueTexts(type, value));
    } catch (const Lattice::TypeError& e) {
      return fault("row of {}: {}", table, e.what());
    }
    rows_[row.owner] = {table, value, meterOfRow(type, value)};
  }

  static std::string joined(const std::vector<Lattice::ColumnText>& columns) {
    std::string text;
    for (const auto& column : columns) {
      text += fmt::format("{}{}={}", text.empty() ? "" : " ", column.name, column.text);
    }
    return text;
  }

  // The row that belongs to a record; rows left over at the end belong to no record.
  std::optional<StoredRow> takeRow(uint64_t handle, const std::string& table) {
    const auto row = rows_.extract(handle);
    if (!row.empty() && row.mapped().table == table) return std::move(row.mapped());
    return std::nullopt;
  }

  void compareEntry(uint64_t handle, const EntryRecord& entry) {
    const auto row = takeRow(handle, entry.table);
    if (!row) return fault("{}: record {:#x} without a row", entry.table, handle);
    std::string& text = state_.caches[entry.key];
    text = (entry.indirect ? indirectText(entry) : entry.action) +
           Words::meter(row->meter.value_or(Lattice::MeterColumns{}));
    if (!entry.indirect) return;
    Cursor value(row->value);
    const auto id = value.number<uint32_t>();
    if (id != rowId(entry.indirect) || value.number<uint8_t>() != isGroup(entry.indirect)) {
      fault("{}: the row of {} names {}, not {:#x}", entry.table, entry.key, id, entry.indirect);
    }
  }

  // Looks through hidden objects, and marks them as used.
  std::string indirectText(const EntryRecord& entry) {
    const auto member = members_.find(entry.indirect);
    const auto group = groups_.find(entry.indirect);
    if (member != members_.end()) {
      if (member->second.id == 0) fault("{} names a hidden member", entry.key);
      return Words::toMember(member->second.id);
    }
    if (group == groups_.end()) {
      fault("{} names {:#x}, which has no record", entry.key, entry.indirect);
      return "";
    }
    if (group->second.id != 0) return Words::toGroup(group->second.id);
    if (!used_.insert(entry.indirect).second) fault("{} shares a hidden group", entry.key);
    std::map<std::string, uint64_t> weights;
    for (const uint64_t handle : group->second.members) {
      used_.insert(handle);
      if (members_.contains(handle)) ++weights[members_[handle].action];
    }
    return Words::toActionSet(weights);
  }

  void compareMember(uint64_t handle, const MemberRecord& member) {
    if (!takeRow(profileBit | handle, member.table)) {
      fault("{}: member {} ({:#x}) without a row", member.table, member.id, handle);
    }
    if (member.id != 0) state_.caches[Words::memberKey(member.table, member.id)] = member.action;
  }

  void compareGroup(uint64_t handle, const GroupRecord& group) {
    const auto row = takeRow(profileBit | handle, group.table);
    if (!row && !group.members.empty()) {
      fault("{}: group {} ({:#x}) without a row", group.table, group.id, handle);
    }
    std::multiset<uint32_t> recorded;
    std::map<uint32_t, uint64_t> weights;
    for (const uint64_t member : group.members) {
      recorded.insert(rowId(member));
      const auto found = members_.find(member);
      if (found == members_.end() || (found->second.id == 0) != (group.id == 0)) {
        fault("{}: group {} names {:#x}, not its like", group.table, group.id, member);
      } else {
        ++weights[found->second.id];
      }
    }
    const auto rowMembers = Cursor(row ? row->value : std::string(4, '\0')).numbers<uint32_t>();
    if (recorded != std::multiset<uint32_t>(rowMembers.begin(), rowMembers.end())) {
      fault("{}: group {} has other members in its row than in its record", group.table, group.id);
    }
    if (group.id != 0)
      state_.caches[Words::groupKey(group.table, group.id)] = Words::shares(weights);
  }

  void findOrphans() {
    for (const auto& [handle, member] : members_) {
      if (member.id == 0 && !used_.contains(handle))
        fault("hidden member {:#x} is nobody's", handle);
    }
    for (const auto& [handle, group] : groups_) {
      if (group.id == 0 && !used_.contains(handle)) fault("hidden group {:#x} is nobody's", handle);
    }
  }

  const Pipeline::RowTables& tables_;
  const std::unique_ptr<Brine::Reader> reader_;
  const std::unique_ptr<Brine::Snapshot> snapshot_;
  std::map<uint64_t, EntryRecord> entries_;
  std::map<uint64_t, MemberRecord> members_;
  std::map<uint64_t, GroupRecord> groups_;
  std::map<uint64_t, StoredRow> rows_;
  std::set<uint64_t> used_;  // hidden members and groups that an entry reaches
  StoredState state_;
};

}  // namespace

StoredState storedState(const Pipeline& pipeline, const std::string& stateDirectory) {
  return StateReader(pipeline, stateDirectory).state();
}

}  // namespace TestSupport
