// Walks packed rows column by column: the one place that knows where the columns of a value lie.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "platform/lattice/records/Packing.h"
#include "platform/lattice/types/TableType.h"

namespace Lattice {

// The columns that a value part always has, in order: an action's id, the flag and numbers of a
// meter or a counter, or the column itself.
std::span<const Column> fixedColumns(const TableType::ValuePart& part);

// Whether the bytes of a value have the layout of their table's type.
struct ValueFit {
  enum class Fault : uint8_t { none, cutShort, tooLong, unknownAction };
  Fault fault = Fault::none;
  uint32_t actionId = 0;  // of an unknown action
  size_t surplus = 0;     // bytes, of a value that is too long

  explicit operator bool() const { return fault == Fault::none; }
};

// The bytes of a column; of an array its elements. Bad when they are missing.
inline std::string_view takeColumn(Unpacker& bytes, const Column& column) {
  if (column.type == ColumnType::u32Array)
    return bytes.takeBytes(size_t{4} * bytes.take<uint32_t>());
  if (column.type == ColumnType::u64Array)
    return bytes.takeBytes(size_t{8} * bytes.take<uint32_t>());
  return bytes.takeBytes(column.size);
}

// Calls visitor.column(part, column, bytes) for each column of the value that has bytes, in order,
// and visitor.action(layout) between an action's id and its fields. Ends at the first fault: the
// visitor has then seen the columns before it.
template <typename Visitor>
ValueFit walkValue(const TableType& type, std::string_view value, Visitor&& visitor) {
  using Fault = ValueFit::Fault;
  Unpacker bytes(value);
  const auto visit = [&](const TableType::ValuePart& part, const Column& column) {
    if (column.type == ColumnType::none) return true;
    const std::string_view taken = takeColumn(bytes, column);
    if (bytes.bad()) return false;
    visitor.column(part, column, taken);
    return true;
  };
  for (const TableType::ValuePart& part : type.valueParts()) {
    if (part.part != TableType::Part::action) {
      for (const Column& column : fixedColumns(part)) {
        if (!visit(part, column)) return {Fault::cutShort};
      }
      continue;
    }
    const std::string_view id = bytes.takeBytes(sizeof(uint32_t));
    if (bytes.bad()) return {Fault::cutShort};
    visitor.column(part, fixedColumns(part).front(), id);
    const auto actionId = loadAt<uint32_t>(id.data());
    const ActionLayout* action = type.action(actionId);
    if (action == nullptr) return {Fault::unknownAction, actionId};
    visitor.action(*action);
    for (const Column& field : action->fields) {
      if (!visit(part, field)) return {Fault::cutShort};
    }
  }
  if (bytes.finished()) return {};
  return {Fault::tooLong, 0, bytes.left()};
}

// Looks at nothing but the layout.
ValueFit fitOfValue(const TableType& type, std::string_view value);

// Where the column of that name and type stands in each value of the table. Nothing without such a
// column, or when the columns before it take different room in different values.
std::optional<uint32_t> offsetOfColumn(const TableType& table, std::string_view name,
                                       ColumnType type);

// The elements of a value that is one U32 array; of a cut array the whole elements.
std::vector<uint32_t> elementsOfArray(std::string_view value);

// Calls visit(column, bytes) for each key column in order; false, and no call, when the key has
// another size than the type's keys.
template <typename Visit>
bool walkKey(const TableType& type, std::string_view key, const Visit& visit) {
  if (key.size() != type.keySize()) return false;
  for (const Column& column : type.keyColumns()) {
    visit(column, key.substr(0, column.size));
    key.remove_prefix(column.size);
  }
  return true;
}

}  // namespace Lattice
