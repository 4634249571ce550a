// Rows of the shared tables, as one commit left them. Works with and without a running agent.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/lattice/types/TableType.h"

struct DumpedRow {
  std::string key;    // packed
  std::string value;  // packed
  uint64_t entryHandle = 0;
  uint64_t sequence = 0;
  std::string state;  // of the entry; empty for a row of no table entry
};

// The rows of a table: entries that hold their action, entries that name a member or a group,
// or the members or groups of an action profile.
enum class TableKind { direct, indirect, member, group };

struct DumpedTable {
  std::string name;
  std::string typeName;
  std::shared_ptr<const Lattice::TableType> type;  // null when the stored definition is unreadable
  TableKind kind = TableKind::direct;
  bool counted = false;  // it has direct counters
  size_t rowCount = 0;
  std::vector<DumpedRow> rows;
};

// Rows are keyed by ids of the agent's own; controllers know members and groups by other ids. The
// members and groups of a one-shot action set have the controller's id 0.
struct DumpedMember {
  std::optional<uint32_t> controllerId;  // empty: the agent remembers no such member
  std::vector<Lattice::ColumnText> action;
};
struct DumpedGroup {
  std::optional<uint32_t> controllerId;
  std::vector<std::pair<uint32_t, unsigned>> members;  // id and weight, in the order of the row
};
struct DumpedProfiles {
  std::unordered_map<uint32_t, DumpedMember> members;
  std::unordered_map<uint32_t, DumpedGroup> groups;
};

// The strings that numbers of translated types stand for, by type and number.
using DumpedNames = std::unordered_map<std::string, std::unordered_map<uint32_t, std::string>>;

struct TableDump {
  std::vector<DumpedTable> tables;
  DumpedProfiles profiles;           // of all tables, when a row of `tables` can lead there
  DumpedNames names;                 // of the types that columns of `tables` have
  std::vector<std::string> damaged;  // table and key of the records that were left out
};

// Table names of the store, ascending, with types and row counts; rows of the tables in `wanted`
// only (all when it is empty and `withRows`). Throws Brine::StoreError, and std::runtime_error for
// a wanted table that is not there.
TableDump dumpTables(const std::string& stateDirectory, const std::vector<std::string>& wanted,
                     bool withRows);

// Where a row of an indirect table leads; nothing when it does not have the layout.
struct IndirectTarget {
  bool isGroup = false;
  uint32_t id = 0;
};
std::optional<IndirectTarget> indirectTarget(const DumpedTable& table, const DumpedRow& row);
// Columns for people, numbers of translated types as their strings in quotes. Throws
// Lattice::TypeError when the bytes do not have the table's layout.
std::vector<Lattice::ColumnText> keyColumns(const DumpedNames& names, const DumpedTable& table,
                                            const std::string& key);
std::vector<Lattice::ColumnText> valueColumns(const DumpedNames& names, const DumpedTable& table,
                                              const std::string& value);
// Tables of such strings.
bool isNameTable(const DumpedTable& table);
void addName(const DumpedTable& table, const DumpedRow& row, DumpedNames* names);
// The id that keys a row of a member or group table.
uint32_t profileId(const DumpedRow& row);
