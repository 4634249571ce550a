// From packed rows to SQL values.
#include <sqlite3.h>

#include <cmath>

#include "platform/lattice/types/RowWalk.h"
#include "platform/pollen/sql/SqlRow.h"

namespace Pollen {

using Lattice::Column;
using Lattice::ColumnType;
using Lattice::TableType;

// Fills the cells of a value. Those of the actions that the row does not have stay absent.
class RowReader::Filler {
 public:
  explicit Filler(RowReader& reader) : reader_(reader), at_(reader.keyCells_) {}

  void column(const TableType::ValuePart& part, const Column&, std::string_view bytes) {
    if (inAction_ && part.part != TableType::Part::action) {
      inAction_ = false;
      at_ = reader_.behindActions_;
    }
    Cell& cell = reader_.cells_[at_++];
    cell.present = true;
    cell.bytes = bytes;
  }
  void action(const Lattice::ActionLayout& action) {
    inAction_ = true;
    at_ = reader_.actionCells_.at(&action);
  }

 private:
  RowReader& reader_;
  size_t at_;
  bool inAction_ = false;
};

namespace {

// Keys hold integers big-endian, values little-endian.
int64_t integerOf(std::string_view bytes, bool bigEndian) {
  uint64_t number = 0;
  const size_t size = bytes.size();
  for (size_t i = 0; i < size; ++i) {
    number = number << 8 | static_cast<uint8_t>(bytes[bigEndian ? i : size - 1 - i]);
  }
  return static_cast<int64_t>(number);
}

}  // namespace

RowReader::RowReader(std::shared_ptr<const TableType> type) : type_(std::move(type)) {
  addCells(type_->keyColumns());
  keyCells_ = cells_.size();
  for (const auto& part : type_->valueParts()) {
    for (const Column& column : Lattice::fixedColumns(part)) addCell(column);
    if (part.part != TableType::Part::action) continue;
    for (const auto& action : type_->actions()) {
      actionCells_[&action] = cells_.size();
      addCells(action.fields);
    }
    behindActions_ = cells_.size();
  }
}

void RowReader::addCell(const Column& column) {
  if (column.type != ColumnType::none) cells_.push_back({column.type});
}

void RowReader::addCells(const std::vector<Column>& columns) {
  for (const Column& column : columns) addCell(column);
}

void RowReader::rowIs(std::string_view key, std::string_view value) {
  size_t cell = 0;
  const bool fits = Lattice::walkKey(
      *type_, key, [&](const Column&, std::string_view bytes) { cells_[cell++].bytes = bytes; });
  for (size_t i = 0; i < keyCells_; ++i) cells_[i].present = fits;
  valueBytes_ = value;
  valueTaken_ = false;
}

void RowReader::takeValue() {
  valueTaken_ = true;
  for (size_t i = keyCells_; i < cells_.size(); ++i) cells_[i].present = false;
  Lattice::walkValue(*type_, valueBytes_, Filler(*this));
}

SqlValue RowReader::value(size_t column) {
  if (column >= cells_.size()) return {};
  if (column >= keyCells_ && !valueTaken_) takeValue();
  const Cell& cell = cells_[column];
  if (!cell.present) return {};
  if (cell.type > ColumnType::u64) return {SqlValue::Kind::blob, 0, cell.bytes};
  return {SqlValue::Kind::integer, integerOf(cell.bytes, column < keyCells_), {}};
}

bool asInteger(sqlite3_value* value, int64_t* number) {
  switch (sqlite3_value_numeric_type(value)) {
    case SQLITE_INTEGER:
      *number = sqlite3_value_int64(value);
      return true;
    case SQLITE_FLOAT: {
      const double real = sqlite3_value_double(value);
      if (!(std::abs(real) < 9.2e18) || std::trunc(real) != real) return false;
      *number = static_cast<int64_t>(real);
      return true;
    }
    default:
      return false;
  }
}

bool appendKeyBytes(const Column& column, sqlite3_value* value, std::string* key) {
  if (column.type <= ColumnType::u64) {
    int64_t number = 0;
    if (!asInteger(value, &number)) return false;
    const auto bits = static_cast<uint64_t>(number);
    if (column.size < 8 && bits >> (8 * column.size) != 0) return false;
    for (uint32_t i = column.size; i > 0; --i)
      key->push_back(static_cast<char>(bits >> 8 * (i - 1)));
    return true;
  }
  if (sqlite3_value_type(value) != SQLITE_BLOB) return false;
  const auto size = static_cast<size_t>(sqlite3_value_bytes(value));
  if (size != column.size) return false;
  key->append(static_cast<const char*>(sqlite3_value_blob(value)), size);
  return true;
}

}  // namespace Pollen
