// Has SQLite decide whether a query is valid for its tables, and how it can be kept up to date.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/lattice/types/TableType.h"
#include "platform/pollen/sql/SqlRow.h"
#include "platform/vela/Outcome.h"

struct sqlite3;

namespace Pollen {

struct CheckedQuery {
  std::string text;
  std::vector<std::pair<std::string, std::shared_ptr<const Lattice::TableType>>> inputs;
  std::vector<std::string> parameters;  // names, without ':'
  std::shared_ptr<const Lattice::TableType> output;
};

// Succeeds when the text is one SELECT over the inputs whose result has the output type's columns,
// by number and name, and follows from the inputs alone. Reasons are in SQLite's words where it
// finds the fault.
Vela::Outcome checkQuery(const CheckedQuery& query);

struct QueryMethod {
  enum class Kind {
    oneInput,  // each result row comes from one row of the one table that is read
    join,      // each comes from one row of each table that is read, none of them read twice
    complete,  // anything else
  };
  Kind kind = Kind::complete;
  std::string why;                // of complete: "it aggregates"
  std::vector<std::string> read;  // the inputs that count; for complete all of them
};

// Of a query that passes checkQuery(). Told from the program that SQLite makes of it: anything but
// nested loops over tables, and expressions, is `complete`.
QueryMethod queryMethod(const CheckedQuery& query);
// "incremental: one input", "incremental: join", "complete evaluation: it aggregates"
std::string methodText(const QueryMethod& method);

// Denies everything but reading tables, and functions whose results differ from call to call.
void allowReadingOnly(sqlite3* database);

}  // namespace Pollen
