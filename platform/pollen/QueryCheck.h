// Has SQLite decide whether a query is valid for its tables.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/lattice/TableType.h"

namespace Pollen {

// The columns that queries see in rows of a type, in order. An action column is "action" (its id)
// followed by one column a field of each action, "NAME_FIELD"; a meter is "meter_flag",
// "meter_cir", "meter_cburst", "meter_pir", "meter_pburst"; a counter "counter_flag",
// "counter_bytes", "counter_packets". Dots in names become underscores.
struct SqlColumn {
  std::string name;
  const char* sqlType;  // INTEGER or BLOB
};
std::vector<SqlColumn> sqlColumns(const Lattice::TableType& type);

struct CheckedQuery {
  std::string text;
  std::vector<std::pair<std::string, std::shared_ptr<const Lattice::TableType>>> inputs;
  std::vector<std::string> parameters;  // names, without ':'
  std::shared_ptr<const Lattice::TableType> output;
};

// Empty when the text is one SELECT over the inputs whose result has the output type's columns, by
// number and name; else why not, in SQLite's words where they are its.
std::string queryTrouble(const CheckedQuery& query);

}  // namespace Pollen
