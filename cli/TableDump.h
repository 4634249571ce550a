// Rows of the shared tables, as one commit left them. Works with and without a running agent.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/lattice/TableType.h"

struct DumpedRow {
  std::string key;    // packed
  std::string value;  // packed
  uint64_t entryHandle = 0;
  uint64_t sequence = 0;
  std::string state;  // of the entry's cache record; empty: there is none
};

struct DumpedTable {
  std::string name;
  std::string typeName;
  std::shared_ptr<const Lattice::TableType> type;  // null when the stored definition is unreadable
  size_t rowCount = 0;
  std::vector<DumpedRow> rows;
};

// Table names of the store, ascending, with types and row counts; rows of those in `wanted` only
// (all when it is empty and `withRows`). Throws Brine::StoreError, and std::runtime_error for a
// wanted table that is not there.
std::vector<DumpedTable> dumpedTables(const std::string& stateDirectory,
                                      const std::vector<std::string>& wanted, bool withRows);
