// From packed rows to keys, actions and numbers of the engine.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "forwarder/plane/ProgramNames.h"
#include "p4/Engine.h"
#include "platform/lattice/types/DirectColumns.h"
#include "platform/lattice/types/TableType.h"

namespace Forwarder {

// The bytes of a number, big-endian; rows have integers of values in host order.
std::string bigEndianOf(const Lattice::Column& column, std::string_view bytes);
// Of a number of up to 8 bytes; wider ones count by their lowest 8.
uint64_t numberOf(const Lattice::Column& column, std::string_view bytes);

// Reads match keys. The columns stand in the order of the program's match fields.
class KeyReader {
 public:
  // Throws P4::Refusal when the columns are not those of the table's fields.
  KeyReader(const Lattice::TableType& type, const P4::Table& table, uint32_t position);

  // Valid until the next call. The key has the type's size.
  const P4::EntryKey& read(std::string_view key);

 private:
  struct Field {
    Lattice::Column column;
    uint32_t bits = 0;
    std::string ones;  // a mask of all bits
  };
  void readField(const Field& field, std::string_view bytes, P4::MatchElement& element) const;
  static void readSecond(const Field& field, std::string_view bytes, P4::MatchElement& element);

  std::vector<Field> fields_;  // the second column of a pair has bits of 0
  P4::EntryKey key_;
};

// The parts of a value.
struct RowValue {
  uint32_t actionId = 0;
  std::vector<std::string> arguments;  // big-endian
  std::vector<uint64_t> numbers;       // of columns that are no action's, and no array's
  std::optional<Lattice::MeterColumns> meter;
};

// Throws P4::Refusal when the bytes do not have the layout.
void readValue(const Lattice::TableType& type, std::string_view value, RowValue* read);

// Positions in the program of the actions that rows name by their ids.
class ActionPositions {
 public:
  // `position` finds an action by its name. Actions that it does not find are refused on use.
  template <typename Position>
  ActionPositions(const Lattice::TableType& type, const ProgramNames& names,
                  const Position& position) {
    for (const Lattice::ActionLayout& action : type.actions()) {
      const auto name = names.actions.find(action.actionId);
      if (name != names.actions.end()) positions_[action.actionId] = position(name->second);
    }
  }

  // Both throw P4::Refusal.
  P4::ActionSpec specOf(const RowValue& value) const;
  uint32_t positionOf(uint32_t actionId) const;

 private:
  std::map<uint32_t, std::optional<uint32_t>> positions_;
};

}  // namespace Forwarder
