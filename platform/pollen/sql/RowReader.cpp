// From packed rows to SQL values.
#include <sqlite3.h>

#include <cmath>

#include "platform/lattice/records/Packing.h"
#include "platform/pollen/sql/SqlRow.h"

namespace Pollen {

using Lattice::Column;
using Lattice::ColumnType;
using Lattice::TableType;

// Fills the cells of a value, front to back.
class RowReader::Taker {
 public:
  Taker(std::string_view bytes, std::vector<Cell>& cells, size_t at)
      : bytes_(bytes), cells_(cells), at_(at) {}

  void take(const Column& column) {
    if (column.type != ColumnType::none) fill(at_++, column);
  }
  void takeNumbers(size_t numbers) {
    put(at_++, bytes_.takeBytes(1));
    for (size_t i = 0; i < numbers; ++i) put(at_++, bytes_.takeBytes(8));
  }
  // The cells of the other actions stay absent.
  void takeAction(const TableType& type, const std::vector<ActionCells>& actions) {
    const std::string_view id = bytes_.takeBytes(4);
    put(at_++, id);
    const size_t end = at_;
    const auto* chosen = bytes_.bad() ? nullptr : type.action(Lattice::loadAt<uint32_t>(id.data()));
    size_t after = end;
    for (const ActionCells& one : actions) {
      size_t cell = one.first;
      for (const Column& field : one.action->fields) {
        if (field.type == ColumnType::none) continue;
        if (one.action == chosen) fill(cell, field);
        ++cell;
      }
      after = std::max(after, cell);
    }
    at_ = after;
  }

 private:
  void fill(size_t cell, const Column& column) {
    size_t size = column.size;
    if (column.type == ColumnType::u32Array) size = size_t{bytes_.take<uint32_t>()} * 4;
    if (column.type == ColumnType::u64Array) size = size_t{bytes_.take<uint32_t>()} * 8;
    put(cell, bytes_.takeBytes(size));
  }
  void put(size_t cell, std::string_view bytes) {
    cells_[cell].present = !bytes_.bad();
    cells_[cell].bytes = bytes;
  }

  Lattice::Unpacker bytes_;
  std::vector<Cell>& cells_;
  size_t at_;
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
    switch (part.part) {
      case TableType::Part::column:
        addCells({part.column});
        break;
      case TableType::Part::action:
        cells_.push_back({ColumnType::u32});
        for (const auto& action : type_->actions()) {
          actions_.push_back({&action, cells_.size()});
          addCells(action.fields);
        }
        break;
      case TableType::Part::meter:
      case TableType::Part::counter:
        cells_.push_back({ColumnType::u8});
        cells_.resize(cells_.size() + (part.part == TableType::Part::meter ? 4 : 2),
                      {ColumnType::u64});
        break;
    }
  }
}

void RowReader::addCells(const std::vector<Column>& columns) {
  for (const Column& column : columns) {
    if (column.type != ColumnType::none) cells_.push_back({column.type});
  }
}

void RowReader::rowIs(std::string_view key, std::string_view value) {
  size_t cell = 0;
  Lattice::Unpacker bytes(key);
  for (const Column& column : type_->keyColumns()) {
    if (column.type == ColumnType::none) continue;
    cells_[cell].bytes = bytes.takeBytes(column.size);
    cells_[cell++].present = !bytes.bad();
  }
  valueBytes_ = value;
  valueTaken_ = false;
}

void RowReader::takeValue() {
  valueTaken_ = true;
  for (size_t i = keyCells_; i < cells_.size(); ++i) cells_[i].present = false;
  Taker taker(valueBytes_, cells_, keyCells_);
  for (const auto& part : type_->valueParts()) {
    switch (part.part) {
      case TableType::Part::column:
        taker.take(part.column);
        break;
      case TableType::Part::action:
        taker.takeAction(*type_, actions_);
        break;
      case TableType::Part::meter:
        taker.takeNumbers(4);
        break;
      case TableType::Part::counter:
        taker.takeNumbers(2);
        break;
    }
  }
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
