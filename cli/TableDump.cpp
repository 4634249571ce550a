#include "cli/TableDump.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <unordered_map>

#include "platform/brine/Store.h"
#include "platform/lattice/StoreLayout.h"

namespace {

using States = std::unordered_map<uint64_t, std::string>;

constexpr const char* tableCache = "p4runtime/cache/table";

// Of a cache record only its head is needed: key (type u32, id u32, handle u64), state u32, all
// little-endian; see P4Runtime/table/CacheRecords.h.
void addState(Brine::Bytes record, States& states) {
  uint64_t handle = 0;
  uint32_t state = 0;
  if (record.size() < 20) return;
  std::memcpy(&handle, record.data() + 8, sizeof handle);
  std::memcpy(&state, record.data() + 16, sizeof state);
  static const char* const names[] = {"pending to be added", "pending to be deleted", "stable"};
  states[handle] = state < std::size(names) ? names[state] : "unknown";
}

States entryStates(Brine::Snapshot& snapshot) {
  States states;
  snapshot.forEach(tableCache, [&](Brine::Bytes, Brine::Bytes record) {
    addState(record, states);
    return true;
  });
  return states;
}

std::shared_ptr<const Lattice::TableType> typeOf(const Lattice::TableRecord& record) {
  try {
    return Lattice::TableType::compile(record.typeName, record.definition);
  } catch (const Lattice::TypeError&) {
    return nullptr;
  }
}

void addRows(Brine::Snapshot& snapshot, const States& states, DumpedTable& table) {
  snapshot.forEach(Lattice::rowTable(table.name), [&](Brine::Bytes key, Brine::Bytes bytes) {
    const auto stored = Lattice::StoredRow::decode(Brine::asText(bytes));
    if (!stored) return true;  // no row of ours
    DumpedRow row{std::string(Brine::asText(key)), std::string(stored->value), stored->entryHandle,
                  stored->sequence, ""};
    if (const auto state = states.find(row.entryHandle); state != states.end()) {
      row.state = state->second;
    }
    table.rows.push_back(std::move(row));
    return true;
  });
}

bool isWanted(const std::vector<std::string>& wanted, const std::string& name) {
  return wanted.empty() || std::find(wanted.begin(), wanted.end(), name) != wanted.end();
}

void requireAll(const std::vector<std::string>& wanted, const std::vector<DumpedTable>& tables) {
  for (const std::string& name : wanted) {
    const bool there = std::any_of(tables.begin(), tables.end(),
                                   [&](const DumpedTable& table) { return table.name == name; });
    if (!there) {
      throw std::runtime_error("there is no table '" + name + "'; 'korvel table list' names them");
    }
  }
}

}  // namespace

std::vector<DumpedTable> dumpedTables(const std::string& stateDirectory,
                                      const std::vector<std::string>& wanted, bool withRows) {
  const auto reader = Brine::Reader::open(stateDirectory);
  const auto snapshot = reader->snapshot();
  std::vector<DumpedTable> tables;
  snapshot->forEach(Lattice::typesTable, [&](Brine::Bytes key, Brine::Bytes bytes) {
    const auto record = Lattice::TableRecord::decode(Brine::asText(bytes));
    const std::string name(Brine::asText(key));
    if (record && isWanted(wanted, name)) {
      tables.push_back({name, record->typeName, typeOf(*record), 0, {}});
    }
    return true;
  });
  requireAll(wanted, tables);
  const States states = withRows ? entryStates(*snapshot) : States();
  for (DumpedTable& table : tables) {
    table.rowCount = snapshot->count(Lattice::rowTable(table.name));
    if (withRows) addRows(*snapshot, states, table);
  }
  return tables;
}
