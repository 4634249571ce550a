#include "platform/lattice/types/DirectColumns.h"

#include "platform/lattice/records/Packing.h"

namespace Lattice {
namespace {

using Part = TableType::Part;

void skipColumn(const Column& column, Unpacker& bytes) {
  if (column.type == ColumnType::u32Array) {
    bytes.takeBytes(size_t{bytes.take<uint32_t>()} * sizeof(uint32_t));
  } else if (column.type == ColumnType::u64Array) {
    bytes.takeBytes(size_t{bytes.take<uint32_t>()} * sizeof(uint64_t));
  } else {
    bytes.takeBytes(column.size);
  }
}

// False for an action that the type does not have.
bool skipAction(const TableType& type, Unpacker& bytes) {
  const ActionLayout* action = type.action(bytes.take<uint32_t>());
  if (action == nullptr) return false;
  for (const Column& field : action->fields) skipColumn(field, bytes);
  return true;
}

MeterColumns takeMeter(Unpacker& bytes) {
  MeterColumns meter;
  meter.given = bytes.take<uint8_t>() != 0;
  for (uint64_t* number : {&meter.cir, &meter.cburst, &meter.pir, &meter.pburst}) {
    *number = bytes.take<uint64_t>();
  }
  return meter;
}

CounterColumns takeCounter(Unpacker& bytes) {
  CounterColumns counter;
  counter.given = bytes.take<uint8_t>() != 0;
  for (uint64_t* number : {&counter.bytes, &counter.packets}) *number = bytes.take<uint64_t>();
  return counter;
}

struct DirectColumns {
  std::optional<MeterColumns> meter;
  std::optional<CounterColumns> counter;
};

DirectColumns directColumns(const TableType& type, std::string_view value) {
  Unpacker bytes(value);
  DirectColumns result;
  for (const auto& part : type.valueParts()) {
    if (part.part == Part::column) skipColumn(part.column, bytes);
    if (part.part == Part::action && !skipAction(type, bytes)) return {};
    if (part.part == Part::meter) result.meter = takeMeter(bytes);
    if (part.part == Part::counter) result.counter = takeCounter(bytes);
  }
  return bytes.finished() ? result : DirectColumns{};
}

}  // namespace

std::optional<MeterColumns> meterOfRow(const TableType& type, std::string_view value) {
  return directColumns(type, value).meter;
}

std::optional<CounterColumns> counterOfRow(const TableType& type, std::string_view value) {
  return directColumns(type, value).counter;
}

}  // namespace Lattice
