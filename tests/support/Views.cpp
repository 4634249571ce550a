// See Views.h.
#include "tests/support/Views.h"

#include <fmt/format.h>

#include <cstring>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include "platform/brine/Store.h"
#include "platform/lattice/StoreLayout.h"
#include "platform/lattice/TableType.h"

namespace TestSupport {
namespace {

std::string hex(std::string_view bytes) {
  std::string text;
  for (const unsigned char byte : bytes) text += fmt::format("{:02x}", byte);
  return text;
}

std::string hostOrder(uint32_t value) {
  return {reinterpret_cast<const char*>(&value), sizeof value};
}

// One field of a PI match key; one that is left out is all don't care.
std::string fieldBytes(const p4::config::v1::MatchField& field, const p4::v1::FieldMatch* match) {
  using Field = p4::config::v1::MatchField;
  const int width = field.bitwidth();
  const auto padded = [width](const std::string& bytes) { return paddedBytes(bytes, width); };
  const p4::v1::FieldMatch& value = match ? *match : p4::v1::FieldMatch::default_instance();
  switch (field.match_type()) {
    case Field::LPM:
      return padded(value.lpm().value()) +
             hostOrder(static_cast<uint32_t>(value.lpm().prefix_len()));
    case Field::TERNARY:
      return padded(value.ternary().value()) + padded(value.ternary().mask());
    case Field::OPTIONAL:
      return padded(value.optional().value());
    case Field::RANGE:
      return padded(value.range().low());
    default:
      return padded(value.exact().value());
  }
}

std::string matchKeyBytes(const p4::config::v1::Table& table, const p4::v1::TableEntry& entry) {
  std::string bytes;
  for (const auto& field : table.match_fields()) {
    const p4::v1::FieldMatch* match = nullptr;
    for (const auto& candidate : entry.match()) {
      if (candidate.field_id() == field.id()) match = &candidate;
    }
    bytes += fieldBytes(field, match);
  }
  return bytes;
}

std::string actionBytes(const p4::config::v1::Action& definition, const p4::v1::Action& action) {
  std::string bytes;
  for (const auto& param : definition.params()) {
    for (const auto& value : action.params()) {
      if (value.param_id() == param.id()) bytes += paddedBytes(value.value(), param.bitwidth());
    }
  }
  return bytes;
}

std::string keyText(const std::string& table, std::string_view key, int64_t priority) {
  return fmt::format("{}|{}|{}", table, hex(key), priority);
}
std::string actionText(uint32_t actionId, std::string_view action) {
  return fmt::format("{:#x}|{}", actionId, hex(action));
}

// Reads a packed, little-endian record from front to back.
class Cursor {
 public:
  explicit Cursor(Brine::Bytes bytes) : rest_(Brine::asText(bytes)) {}

  template <typename Number>
  Number number() {
    Number value{};
    const std::string_view bytes = take(sizeof value);
    if (intact_) std::memcpy(&value, bytes.data(), sizeof value);
    return value;
  }
  std::string_view counted() { return take(number<uint32_t>()); }
  std::string_view take(size_t size) {
    if (rest_.size() < size) intact_ = false;
    if (!intact_) return {};
    const std::string_view taken = rest_.substr(0, size);
    rest_.remove_prefix(size);
    return taken;
  }
  bool intact() const { return intact_; }
  std::string_view rest() const { return rest_; }

 private:
  std::string_view rest_;
  bool intact_ = true;
};

void addCacheRecord(const Pipeline& pipeline, Brine::Bytes record, StoredState& state) {
  Cursor cursor(record);
  cursor.number<uint32_t>();  // resource type: table
  const auto tableId = cursor.number<uint32_t>();
  const auto handle = cursor.number<uint64_t>();
  const auto entryState = cursor.number<uint32_t>();
  const auto priority = cursor.number<int32_t>();
  cursor.number<uint32_t>();  // entry type and padding
  cursor.number<uint64_t>();  // indirect handle
  const auto actionId = cursor.number<uint32_t>();
  cursor.number<uint64_t>();  // controller metadata
  const std::string_view key = cursor.counted();
  const std::string_view action = cursor.counted();
  const auto table = pipeline.rowTables().find(tableId);
  if (!cursor.intact() || !cursor.rest().empty() || table == pipeline.rowTables().end()) {
    state.damaged.push_back("cache record " + hex(Brine::asText(record)));
    return;
  }
  constexpr uint32_t stable = 2;
  if (entryState != stable) ++state.unstable;
  state.caches[keyText(table->second, key, priority)] = actionText(actionId, action);
  state.cachedHandles[handle] = table->second;
}

std::string joined(const std::vector<Lattice::ColumnText>& columns) {
  std::string text;
  for (const auto& column : columns) {
    text += fmt::format("{}{}={}", text.empty() ? "" : " ", column.name, column.text);
  }
  return text;
}

void addRow(const std::string& table, const Lattice::TableType& type, Brine::Bytes key,
            Brine::Bytes value, StoredState& state) {
  const auto row = Lattice::StoredRow::decode(Brine::asText(value));
  if (!row) {
    state.damaged.push_back("row of " + table);
    return;
  }
  try {
    const std::string keyColumns = joined(keyTexts(type, Brine::asText(key)));
    state.rows[table + " " + keyColumns] = joined(valueTexts(type, row->value));
    state.rowHandles[row->entryHandle] = table;
  } catch (const Lattice::TypeError& e) {
    state.damaged.push_back(fmt::format("row of {}: {}", table, e.what()));
  }
}

std::shared_ptr<const Lattice::TableType> typeOf(Brine::Snapshot& snapshot,
                                                 const std::string& table) {
  const auto bytes = snapshot.get(Lattice::typesTable, Brine::asBytes(table));
  if (!bytes) return nullptr;
  const auto record = Lattice::TableRecord::decode(Brine::asText(*bytes));
  if (!record) return nullptr;
  return Lattice::TableType::compile(record->typeName, record->definition);
}

}  // namespace

View viewOfEntries(const Pipeline& pipeline, const std::vector<p4::v1::TableEntry>& entries) {
  View view;
  for (const auto& entry : entries) {
    const auto& table = pipeline.table(entry.table_id());
    const auto& action = entry.action().action();
    view[keyText(pipeline.rowTable(entry.table_id()), matchKeyBytes(table, entry),
                 entry.priority())] =
        actionText(action.action_id(), actionBytes(pipeline.action(action.action_id()), action));
  }
  return view;
}

StoredState storedState(const Pipeline& pipeline, const std::string& stateDirectory) {
  const auto reader = Brine::Reader::open(stateDirectory);
  const auto snapshot = reader->snapshot();
  StoredState state;
  snapshot->forEach("p4runtime/cache/table", [&](Brine::Bytes, Brine::Bytes record) {
    addCacheRecord(pipeline, record, state);
    return true;
  });
  for (const auto& [id, table] : pipeline.rowTables()) {
    const auto type = typeOf(*snapshot, table);
    if (!type) continue;
    snapshot->forEach(Lattice::rowTable(table), [&](Brine::Bytes key, Brine::Bytes value) {
      addRow(table, *type, key, value, state);
      return true;
    });
  }
  return state;
}

View forwarderView(const ForwarderProcess& forwarder) {
  const CommandResult result = forwarder.ctl({"dump"});
  if (result.exit.code != 0) throw std::runtime_error("forwarder: " + result.error);
  View view;
  std::istringstream lines(result.output);
  for (std::string line; std::getline(lines, line);) {
    const size_t arrow = line.find(" -> ");
    if (arrow == std::string::npos) throw std::runtime_error("no row: " + line);
    view[line.substr(0, arrow)] = line.substr(arrow + 4);
  }
  return view;
}

std::string difference(const std::string& leftName, const View& left, const std::string& rightName,
                       const View& right) {
  constexpr size_t shown = 10;
  std::string text;
  size_t count = 0;
  const auto tell = [&](const std::string& name, const std::string& key, const std::string& value) {
    if (++count <= shown) text += fmt::format("only in {}: {} -> {}\n", name, key, value);
  };
  const auto compare = [&](const std::string& name, const View& these, const View& others) {
    for (const auto& [key, value] : these) {
      const auto other = others.find(key);
      if (other == others.end() || other->second != value) tell(name, key, value);
    }
  };
  compare(leftName, left, right);
  compare(rightName, right, left);
  if (count > shown) text += fmt::format("... {} lines in all\n", count);
  return text;
}

}  // namespace TestSupport
