// Rows of shared tables as SQL sees them, and back.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/lattice/types/TableType.h"
#include "platform/vela/Outcome.h"

struct sqlite3_stmt;
struct sqlite3_value;

namespace Pollen {

// The columns that queries see in rows of a type, in order. An action column is "action" (its id)
// followed by one column a field of each action, "NAME_FIELD", NULL in rows of other actions; a
// meter is "meter_flag", "meter_cir", "meter_cburst", "meter_pir", "meter_pburst"; a counter
// "counter_flag", "counter_bytes", "counter_packets". Dots in names become underscores. Integers
// are INTEGER, with U64 above 2^63 - 1 seen as negative; all else is a BLOB as rows hold it, arrays
// as their elements.
struct SqlColumn {
  std::string name;
  const char* sqlType;  // INTEGER or BLOB
};
std::vector<SqlColumn> sqlColumns(const Lattice::TableType& type);

std::string quotedName(const std::string& name);
// "name type, name type, ..."
std::string columnList(const Lattice::TableType& type);

struct SqlValue {
  enum class Kind : uint8_t { null, integer, blob };
  Kind kind = Kind::null;
  int64_t integer = 0;
  std::string_view blob;  // of the row's bytes
};

// Gives SQL the columns of rows of one type. One thread uses it.
class RowReader {
 public:
  explicit RowReader(std::shared_ptr<const Lattice::TableType> type);
  const Lattice::TableType& type() const { return *type_; }

  // The bytes must outlive the value() calls for them.
  void rowIs(std::string_view key, std::string_view value);
  SqlValue value(size_t column);  // of sqlColumns(); NULL where the bytes make no sense

 private:
  struct Cell {
    Lattice::ColumnType type;
    bool present = false;
    std::string_view bytes;
  };
  void addCell(const Lattice::Column& column);
  void addCells(const std::vector<Lattice::Column>& columns);
  void takeValue();
  class Filler;

  const std::shared_ptr<const Lattice::TableType> type_;
  std::vector<Cell> cells_;
  std::unordered_map<const Lattice::ActionLayout*, size_t> actionCells_;  // the first of each
  size_t behindActions_ = 0;                                              // number of the cell
  size_t keyCells_ = 0;
  std::string_view valueBytes_;
  bool valueTaken_ = true;
};

// Appends the value as key bytes of the column. False: no row can have that value there.
bool appendKeyBytes(const Lattice::Column& column, sqlite3_value* value, std::string* key);
// The number that an INTEGER column of this value compares equal with; false: none.
bool asInteger(sqlite3_value* value, int64_t* number);

// Builds a row of a type from the result of a query. A failure says which column of which row is
// wrong, and how; `row` then has no meaning.
Vela::Outcome buildRow(const Lattice::TableType& type, sqlite3_stmt* result, Lattice::Row* row);

}  // namespace Pollen
