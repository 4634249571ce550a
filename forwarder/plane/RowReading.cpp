#include "forwarder/plane/RowReading.h"

#include <algorithm>

#include "p4/tables/Refusal.h"
#include "platform/lattice/types/IpGenPrefix.h"
#include "platform/lattice/types/RowWalk.h"

namespace Forwarder {
namespace {

using Lattice::Column;
using Lattice::ColumnRole;
using Lattice::ColumnType;

constexpr size_t prefixLengthAt = 1;  // in an IpGenPrefix
constexpr size_t addressAt = 8;

bool isHostOrder(const Column& column) {
  return column.type == ColumnType::u8 || column.type == ColumnType::u16 ||
         column.type == ColumnType::u32 || column.type == ColumnType::u64;
}

bool isSecond(ColumnRole role) {
  return role == ColumnRole::mask || role == ColumnRole::high || role == ColumnRole::length ||
         role == ColumnRole::present;
}

std::string onesOf(uint32_t bits) {
  std::string ones((bits + 7) / 8, '\xff');
  if (bits % 8 != 0) ones[0] = static_cast<char>((1 << bits % 8) - 1);
  return ones;
}

uint64_t bigEndianNumber(std::string_view bytes) {
  uint64_t number = 0;
  for (const char byte : bytes) number = number << 8 | static_cast<uint8_t>(byte);
  return number;
}

// Gathers the parts of a value that the engine wants.
struct ValueReader {
  RowValue& read;
  bool isInAction = false;

  void action(const Lattice::ActionLayout&) { isInAction = true; }
  void column(const Lattice::TableType::ValuePart& part, const Column& column,
              std::string_view bytes) const {
    using Part = Lattice::TableType::Part;
    if (part.part == Part::column && column.type != ColumnType::u32Array) {
      read.numbers.push_back(numberOf(column, bytes));
    } else if (part.part == Part::action && isInAction) {
      read.arguments.push_back(bigEndianOf(column, bytes));
    } else if (part.part == Part::action) {
      read.actionId = static_cast<uint32_t>(numberOf(column, bytes));
    }
  }
};

}  // namespace

std::string bigEndianOf(const Column& column, std::string_view bytes) {
  std::string turned(bytes);
  if (isHostOrder(column)) std::ranges::reverse(turned);
  return turned;
}

uint64_t numberOf(const Column& column, std::string_view bytes) {
  return bigEndianNumber(bigEndianOf(column, bytes));
}

KeyReader::KeyReader(const Lattice::TableType& type, const P4::Table& table, uint32_t position) {
  key_.table = position;
  size_t field = 0;
  for (const Column& column : type.keyColumns()) {
    const bool isField = column.role != ColumnRole::priority && !isSecond(column.role);
    const uint32_t bits = isField && field < table.key.size() ? table.key[field].bits : 0;
    field += isField;
    fields_.push_back({column, bits, onesOf(bits)});
  }
  if (field != table.key.size()) {
    throw P4::Refusal(P4::RefusalKind::invalid,
                      "table " + table.name + " has " + std::to_string(table.key.size()) +
                          " match fields in the program, and another number in the P4Info");
  }
  key_.match.resize(table.key.size());
}

const P4::EntryKey& KeyReader::read(std::string_view key) {
  size_t at = 0;
  size_t next = 0;
  for (const Field& field : fields_) {
    const std::string_view bytes = key.substr(at, field.column.size);
    at += field.column.size;
    if (field.column.role == ColumnRole::priority) {
      key_.priority = static_cast<uint32_t>(bigEndianNumber(bytes));
    } else if (isSecond(field.column.role)) {
      readSecond(field, bytes, key_.match[next - 1]);
    } else {
      readField(field, bytes, key_.match[next++]);
    }
  }
  return key_;
}

// Keys have integers in network order.
void KeyReader::readField(const Field& field, std::string_view bytes,
                          P4::MatchElement& element) const {
  element.mask.clear();
  element.prefixLength = 0;
  if (field.column.type == ColumnType::ipGenPrefix) {
    element.prefixLength = static_cast<uint8_t>(bytes[prefixLengthAt]);
    bytes = bytes.substr(addressAt, (field.bits + 7) / 8);
  }
  element.value.assign(bytes);
  // A range of one value, and the mask of an optional field that is present.
  if (field.column.role == ColumnRole::range) element.mask = element.value;
  if (field.column.role == ColumnRole::optional) element.mask = field.ones;
}

void KeyReader::readSecond(const Field& field, std::string_view bytes, P4::MatchElement& element) {
  if (field.column.role == ColumnRole::length) {
    element.prefixLength = static_cast<uint32_t>(bigEndianNumber(bytes));
  } else if (field.column.role != ColumnRole::present) {
    element.mask.assign(bytes);
  } else if (bytes.front() == 0) {
    std::ranges::fill(element.mask, '\0');
  }
}

void readValue(const Lattice::TableType& type, std::string_view value, RowValue* read) {
  read->arguments.clear();
  read->numbers.clear();
  if (!Lattice::walkValue(type, value, ValueReader{*read})) {
    throw P4::Refusal(P4::RefusalKind::invalid, "the row does not have the layout of its type");
  }
  read->meter = Lattice::meterOfRow(type, value);
}

P4::ActionSpec ActionPositions::specOf(const RowValue& value) const {
  return {.action = positionOf(value.actionId), .arguments = value.arguments};
}

uint32_t ActionPositions::positionOf(uint32_t actionId) const {
  const auto found = positions_.find(actionId);
  if (found == positions_.end() || !found->second) {
    throw P4::Refusal(P4::RefusalKind::invalid,
                      "the program has no action with id " + std::to_string(actionId) + " here");
  }
  return *found->second;
}

}  // namespace Forwarder
