#include "cli/table/TableDump.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>

#include "platform/brine/Reader.h"
#include "platform/lattice/records/Packing.h"
#include "platform/lattice/records/StoreLayout.h"
#include "platform/lattice/types/DirectColumns.h"
#include "platform/lattice/types/RowWalk.h"

namespace {

using Lattice::ColumnText;
using Lattice::ColumnType;
using Lattice::TableType;

constexpr const char* memberCache = "p4runtime/cache/actionProfileMember";
constexpr const char* groupCache = "p4runtime/cache/actionProfileGroup";

// The agent's record of an entry stands behind its row; a row is pending while the outcome of its
// batch is not known.
std::string stateOf(const Brine::Snapshot& snapshot, const Brine::Record& row) {
  if (row.attachment.empty()) return "";
  return snapshot.isUnsettled(row) ? "pending to be added" : "stable";
}

std::shared_ptr<const TableType> typeOf(const Lattice::TableRecord& record) {
  try {
    return TableType::compile(record.typeName, record.definition);
  } catch (const Lattice::TypeError&) {
    return nullptr;
  }
}

bool hasColumn(const TableType& type, const char* name) {
  return std::ranges::any_of(type.valueParts(), [&](const TableType::ValuePart& part) {
    return part.part == TableType::Part::column && part.column.name == name;
  });
}

TableKind kindOf(const std::string& name, const TableType& type) {
  const bool keyedById =
      type.keyColumns().size() == 1 && type.keyColumns()[0].type == ColumnType::u32;
  if (keyedById && name.ends_with(".member")) return TableKind::member;
  const auto& parts = type.valueParts();
  const bool isArray = parts.size() == 1 && parts[0].column.type == ColumnType::u32Array;
  if (keyedById && isArray && name.ends_with(".group")) return TableKind::group;
  if (hasColumn(type, "indirect_id") && hasColumn(type, "is_group")) return TableKind::indirect;
  return TableKind::direct;
}

DumpedTable tableOf(const std::string& name, const Lattice::TableRecord& record) {
  DumpedTable table{.name = name, .typeName = record.typeName, .type = typeOf(record)};
  if (!table.type) return table;
  table.kind = kindOf(name, *table.type);
  table.counted = Lattice::isCounted(*table.type);
  return table;
}

template <typename Visit>
void eachRow(Brine::Snapshot& snapshot, const DumpedTable& table, const Visit& visit) {
  snapshot.forEachRecord(Lattice::rowTable(table.name), [&](const Brine::Record& row) {
    visit(DumpedRow{std::string(Brine::asText(row.key)), std::string(Brine::asText(row.value)),
                    row.owner, row.sequence, stateOf(snapshot, row)});
    return true;
  });
}

// Ascending by key.
void addRows(Brine::Snapshot& snapshot, DumpedTable& table) {
  eachRow(snapshot, table, [&](DumpedRow row) { table.rows.push_back(std::move(row)); });
  std::ranges::sort(table.rows, {}, &DumpedRow::key);
}

DumpedNames namesIn(Brine::Snapshot& snapshot, const std::vector<DumpedTable>& tables) {
  DumpedNames names;
  for (const DumpedTable& table : tables) {
    if (!isNameTable(table)) continue;
    eachRow(snapshot, table, [&](const DumpedRow& row) { addName(table, row, &names); });
  }
  return names;
}

DumpedMember memberOf(const DumpedNames& names, const DumpedTable& table, const DumpedRow& row) {
  try {
    return {.action = valueColumns(names, table, row.value)};
  } catch (const Lattice::TypeError&) {
    return {.action = {{"action", "unreadable"}}};
  }
}

// Weights are repeated ids.
DumpedGroup groupOf(const DumpedRow& row) {
  DumpedGroup group;
  for (const uint32_t id : Lattice::elementsOfArray(row.value)) {
    auto known = std::ranges::find(group.members, id, &std::pair<uint32_t, unsigned>::first);
    if (known == group.members.end()) known = group.members.insert(known, {id, 0});
    ++known->second;
  }
  return group;
}

// Visits id and controller's id of each record in a cache. In a record the controller's id
// stands at `idAt`, the agent's handle at `handleAt`.
template <typename Visit>
void eachCached(Brine::Snapshot& snapshot, const char* cache, size_t idAt, size_t handleAt,
                const Visit& visit) {
  snapshot.forEach(cache, [&](Brine::Bytes, Brine::Bytes record) {
    if (record.size() < handleAt + sizeof(uint64_t)) return true;
    const auto handle = Lattice::loadAt<uint64_t>(record.data() + handleAt);
    // Rows have the lower half.
    visit(static_cast<uint32_t>(handle), Lattice::loadAt<uint32_t>(record.data() + idAt));
    return true;
  });
}

DumpedProfiles profilesIn(Brine::Snapshot& snapshot, const std::vector<DumpedTable>& tables,
                          const DumpedNames& names) {
  DumpedProfiles profiles;
  for (const DumpedTable& table : tables) {
    if (table.kind == TableKind::member) {
      eachRow(snapshot, table, [&](const DumpedRow& row) {
        profiles.members[profileId(row)] = memberOf(names, table, row);
      });
    } else if (table.kind == TableKind::group) {
      eachRow(snapshot, table,
              [&](const DumpedRow& row) { profiles.groups[profileId(row)] = groupOf(row); });
    }
  }
  eachCached(snapshot, memberCache, 20, 24, [&](uint32_t id, uint32_t controllerId) {
    const auto found = profiles.members.find(id);
    if (found != profiles.members.end()) found->second.controllerId = controllerId;
  });
  // A group that has had no members yet has no row, and is there all the same.
  eachCached(snapshot, groupCache, 16, 20, [&](uint32_t id, uint32_t controllerId) {
    profiles.groups[id].controllerId = controllerId;
  });
  return profiles;
}

bool isWanted(const std::vector<std::string>& wanted, const std::string& name) {
  return wanted.empty() || std::ranges::find(wanted, name) != wanted.end();
}

std::string damagedText(const Brine::DamagedRecord& record,
                        const std::vector<DumpedTable>& tables) {
  std::string key = "0x";
  for (const char c : record.key) key += fmt::format("{:02x}", static_cast<uint8_t>(c));
  const auto isIts = [&](const DumpedTable& table) {
    return record.table == Lattice::rowTable(table.name);
  };
  const auto table = std::ranges::find_if(tables, isIts);
  if (table == tables.end()) return fmt::format("{}, key {}", record.table, key);
  if (!table->type) return fmt::format("table {}, key {}", table->name, key);
  std::string text = "table " + table->name;
  try {
    for (const ColumnText& column : keyTexts(*table->type, record.key)) {
      text += fmt::format(", {}={}", column.name, column.text);
    }
  } catch (const Lattice::TypeError&) {
    text += ", key " + key;
  }
  return text;
}

uint64_t littleEndian(std::string_view bytes) {
  uint64_t number = 0;
  for (size_t i = bytes.size(); i > 0; --i) {
    number = number << 8 | static_cast<uint8_t>(bytes[i - 1]);
  }
  return number;
}

struct TargetColumns : IndirectTarget {
  void column(const TableType::ValuePart&, const Lattice::Column& column, std::string_view bytes) {
    if (column.name == "indirect_id") id = static_cast<uint32_t>(littleEndian(bytes));
    if (column.name == "is_group") isGroup = littleEndian(bytes) != 0;
  }
  static void action(const Lattice::ActionLayout&) {}
};

void requireAll(const std::vector<std::string>& wanted, const std::vector<DumpedTable>& tables) {
  for (const std::string& name : wanted) {
    if (std::ranges::find(tables, name, &DumpedTable::name) != tables.end()) continue;
    throw std::runtime_error("there is no table '" + name + "'; 'korvel table list' names them");
  }
}

}  // namespace

uint32_t profileId(const DumpedRow& row) {
  uint32_t id = 0;
  for (size_t i = 0; i < sizeof id && i < row.key.size(); ++i) {
    id = id << 8 | static_cast<uint8_t>(row.key[i]);
  }
  return id;
}

std::optional<IndirectTarget> indirectTarget(const DumpedTable& table, const DumpedRow& row) {
  TargetColumns target;
  if (!Lattice::walkValue(*table.type, row.value, target)) return std::nullopt;
  return target;
}

TableDump dumpTables(const std::string& stateDirectory, const std::vector<std::string>& wanted,
                     bool withRows) {
  const auto reader = Brine::Reader::open(stateDirectory);
  const auto snapshot = reader->snapshot();
  std::vector<DumpedTable> all;
  snapshot->forEach(Lattice::typesTable, [&](Brine::Bytes key, Brine::Bytes bytes) {
    const auto record = Lattice::TableRecord::decode(Brine::asText(bytes));
    if (record) all.push_back(tableOf(std::string(Brine::asText(key)), *record));
    return true;
  });
  std::ranges::sort(all, {}, &DumpedTable::name);
  requireAll(wanted, all);
  TableDump dump;
  std::ranges::copy_if(all, std::back_inserter(dump.tables),
                       [&](const DumpedTable& table) { return isWanted(wanted, table.name); });
  for (DumpedTable& table : dump.tables) {
    table.rowCount = snapshot->count(Lattice::rowTable(table.name));
    if (withRows) addRows(*snapshot, table);
  }
  const bool leadsThere = std::ranges::any_of(dump.tables, [](const DumpedTable& table) {
    return table.kind != TableKind::direct && !table.rows.empty();
  });
  if (withRows) dump.names = namesIn(*snapshot, all);
  if (leadsThere) dump.profiles = profilesIn(*snapshot, all, dump.names);
  for (const auto& record : snapshot->damagedRecords()) {
    dump.damaged.push_back(damagedText(record, all));
  }
  return dump;
}
