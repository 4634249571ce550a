#include "platform/lattice/types/RowWalk.h"

namespace Lattice {
namespace {

Column number(const char* name, ColumnType type, uint32_t size) {
  return {name, type, ColumnRole::exact, size};
}
Column u64(const char* name) { return number(name, ColumnType::u64, 8); }

const Column actionColumns[] = {number("action", ColumnType::u32, 4)};
const Column meterColumns[] = {number("flag", ColumnType::u8, 1), u64("cir"), u64("cburst"),
                               u64("pir"), u64("pburst")};
const Column counterColumns[] = {number("flag", ColumnType::u8, 1), u64("bytes"), u64("packets")};

struct NoVisitor {
  static void column(const TableType::ValuePart&, const Column&, std::string_view) {}
  static void action(const ActionLayout&) {}
};

}  // namespace

std::span<const Column> fixedColumns(const TableType::ValuePart& part) {
  switch (part.part) {
    case TableType::Part::action:
      return actionColumns;
    case TableType::Part::meter:
      return meterColumns;
    case TableType::Part::counter:
      return counterColumns;
    case TableType::Part::column:
      break;
  }
  return {&part.column, 1};
}

std::vector<uint32_t> elementsOfArray(std::string_view value) {
  std::vector<uint32_t> elements;
  Unpacker bytes(value);
  for (auto left = bytes.take<uint32_t>(); left > 0; --left) {
    const auto element = bytes.take<uint32_t>();
    if (bytes.bad()) break;
    elements.push_back(element);
  }
  return elements;
}

ValueFit fitOfValue(const TableType& type, std::string_view value) {
  return walkValue(type, value, NoVisitor());
}

std::optional<uint32_t> offsetOfColumn(const TableType& table, std::string_view name,
                                       ColumnType type) {
  uint32_t offset = 0;
  for (const TableType::ValuePart& part : table.valueParts()) {
    if (part.part != TableType::Part::column || part.column.size == 0) break;
    if (part.column.name == name && part.column.type == type) return offset;
    offset += part.column.size;
  }
  return std::nullopt;
}

}  // namespace Lattice
