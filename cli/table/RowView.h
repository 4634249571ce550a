// A dumped row as a line of text or of JSON.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "cli/table/TableDump.h"

// The counts of all forwarding agents for a row, added up.
struct RowCount {
  uint64_t packets = 0;
  uint64_t bytes = 0;
  std::optional<double> packetsPerSecond;  // since the dump before
};

// "vrf=0x0001 -> action=drop  [handle 5, stable]", "member 3: drop", "group 2: members 3 x2, 4 x1".
std::string rowLine(const TableDump& dump, const DumpedTable& table, const DumpedRow& row,
                    const std::optional<RowCount>& count);
std::string rowJson(const TableDump& dump, const DumpedTable& table, const DumpedRow& row,
                    const std::optional<RowCount>& count);
