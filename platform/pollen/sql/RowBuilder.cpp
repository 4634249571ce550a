// From the results of queries to packed rows.
#include <sqlite3.h>

#include <algorithm>

#include "platform/lattice/records/Packing.h"
#include "platform/lattice/types/IpGenPrefix.h"
#include "platform/lattice/types/RowWalk.h"
#include "platform/pollen/sql/SqlRow.h"

namespace Pollen {
namespace {

using Lattice::Column;
using Lattice::ColumnType;
using Lattice::TableType;

constexpr size_t mostBytesShown = 32;

std::string resultText(sqlite3_stmt* result, int column) {
  switch (sqlite3_column_type(result, column)) {
    case SQLITE_NULL:
      return "NULL";
    case SQLITE_BLOB: {
      static const char digits[] = "0123456789abcdef";
      const auto* bytes = static_cast<const uint8_t*>(sqlite3_column_blob(result, column));
      const auto size = static_cast<size_t>(sqlite3_column_bytes(result, column));
      std::string text = "x'";
      for (size_t i = 0; i < std::min(size, mostBytesShown); ++i) {
        text += {digits[bytes[i] >> 4], digits[bytes[i] & 15]};
      }
      return text + (size > mostBytesShown ? "...'" : "'");
    }
    default: {
      const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(result, column));
      return std::string(text ? text : "").substr(0, mostBytesShown);
    }
  }
}

const char* sqlTypeName(int type) {
  switch (type) {
    case SQLITE_INTEGER:
      return "an INTEGER";
    case SQLITE_FLOAT:
      return "a REAL";
    case SQLITE_TEXT:
      return "a TEXT";
    case SQLITE_BLOB:
      return "a BLOB";
    default:
      return "NULL";
  }
}

Vela::Outcome checkPrefix(std::string_view bytes) {
  using Vela::Outcome;
  Lattice::IpGenPrefix prefix;
  std::memcpy(&prefix, bytes.data(), sizeof prefix);
  const bool v4 = prefix.family == Lattice::IpGenPrefix::ipv4;
  if (!v4 && prefix.family != Lattice::IpGenPrefix::ipv6)
    return Outcome::failure("is no prefix: its family is unknown");
  if (prefix.length > (v4 ? 32 : 128)) {
    return Outcome::failure("is no prefix: its length is above its family's");
  }
  for (size_t bit = prefix.length; bit < 128; ++bit) {
    if (prefix.address[bit / 8] >> (7 - bit % 8) & 1) {
      return Outcome::failure("is no prefix: bits below it are set");
    }
  }
  const auto isZero = [](uint8_t byte) { return byte == 0; };
  if (std::ranges::all_of(prefix.padding, isZero)) return {};
  return Outcome::failure("is no prefix: its padding is not zero");
}

// Appends the columns of a result to a row, one after the other.
class RowBuilder {
 public:
  RowBuilder(const TableType& type, sqlite3_stmt* result) : type_(type), result_(result) {}

  Vela::Outcome run(Lattice::Row* row) {
    row->key.clear();
    row->value.clear();
    row->key.reserve(type_.keySize());
    to_ = &row->key;
    inKey_ = true;
    for (const Column& column : type_.keyColumns()) add(column);
    to_ = &row->value;
    inKey_ = false;
    for (const auto& part : type_.valueParts()) addPart(part);
    if (trouble_.empty()) return {};
    return Vela::Outcome::failure("row " + rowName() + ": " + trouble_);
  }

 private:
  std::string rowName() const {
    std::string text;
    int at = 0;
    for (const Column& column : type_.keyColumns()) {
      if (column.type == ColumnType::none) continue;
      text += (text.empty() ? "" : ", ") + column.name + "=" + resultText(result_, at++);
    }
    return text;
  }
  // The first one counts.
  void wrong(const std::string& what) {
    if (!trouble_.empty()) return;
    trouble_ = std::string("column ") + sqlite3_column_name(result_, at_) + " " + what;
  }

  void addPart(const TableType::ValuePart& part) {
    if (part.part == TableType::Part::action) return addAction();
    for (const Column& column : Lattice::fixedColumns(part)) add(column);
  }
  // The columns of the other actions' fields do not count.
  void addAction() {
    const auto id = static_cast<uint64_t>(sqlite3_column_int64(result_, at_));
    const auto* chosen = id <= UINT32_MAX ? type_.action(static_cast<uint32_t>(id)) : nullptr;
    if (!chosen) wrong("is " + resultText(result_, at_) + ", which is no action of the type");
    addInteger(4);
    for (const auto& action : type_.actions()) {
      for (const Column& field : action.fields) {
        if (field.type == ColumnType::none) continue;
        &action == chosen ? add(field) : (void)++at_;
      }
    }
  }

  void add(const Column& column) {
    if (column.type == ColumnType::none) return;
    if (column.type <= ColumnType::u64) return addInteger(column.size);
    const int type = sqlite3_column_type(result_, at_);
    const auto* bytes = static_cast<const char*>(sqlite3_column_blob(result_, at_));
    const auto size = static_cast<size_t>(sqlite3_column_bytes(result_, at_));
    if (type != SQLITE_BLOB) {
      wrong(std::string("is ") + sqlTypeName(type) + ", not a BLOB");
    } else if (column.size == 0) {
      addArray(column, {bytes, size});
    } else if (size != column.size) {
      wrong("has " + std::to_string(size) + " bytes, not " + std::to_string(column.size));
    } else {
      if (column.type == ColumnType::ipGenPrefix) {
        const Vela::Outcome sound = checkPrefix({bytes, size});
        if (!sound.ok()) wrong(sound.reason());
      }
      to_->append(bytes, size);
    }
    ++at_;
  }
  void addArray(const Column& column, std::string_view elements) {
    const size_t size = column.type == ColumnType::u32Array ? 4 : 8;
    if (elements.size() % size != 0) {
      wrong("has " + std::to_string(elements.size()) + " bytes, no multiple of " +
            std::to_string(size));
    }
    Lattice::append(*to_, static_cast<uint32_t>(elements.size() / size));
    to_->append(elements);
  }
  void addInteger(uint32_t size) {
    const int type = sqlite3_column_type(result_, at_);
    const int64_t number = sqlite3_column_int64(result_, at_);
    const auto bits = static_cast<uint64_t>(number);
    if (type != SQLITE_INTEGER) {
      wrong(std::string("is ") + sqlTypeName(type) + ", not an INTEGER");
    } else if (number < 0 || (size < 8 && bits >> (8 * size) != 0)) {
      wrong("is " + std::to_string(number) + ", which does not fit " + std::to_string(8 * size) +
            " bits without sign");
    }
    for (uint32_t i = 0; i < size; ++i) {
      to_->push_back(static_cast<char>(bits >> 8 * (inKey_ ? size - 1 - i : i)));
    }
    ++at_;
  }

  const TableType& type_;
  sqlite3_stmt* result_;
  std::string* to_ = nullptr;
  bool inKey_ = true;
  int at_ = 0;
  std::string trouble_;
};

}  // namespace

Vela::Outcome buildRow(const TableType& type, sqlite3_stmt* result, Lattice::Row* row) {
  return RowBuilder(type, result).run(row);
}

}  // namespace Pollen
