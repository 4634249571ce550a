// Lattice's records in the store: table names and record layouts. docs/shared-memory.md shows them
// together. Every decode returns nothing when the bytes are cut short, run long, or make no sense.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Lattice {

inline constexpr std::string_view rowTablePrefix = "row/";
// Attachments of rows that went with the former type of their table, by entry handle, big-endian.
inline constexpr std::string_view keptPrefix = "kept/";
inline constexpr std::string_view typesTable = "lattice/types";

// One record, "batch": the changes of the last batch that stands or falls as a whole, as ranges of
// sequence numbers, first u64 and last u64. It counts while it is not settled.
inline constexpr std::string_view wholeBatchTable = "lattice/wholeBatch";

// Under "name/NAME", the forwarding agents that do not learn of other types of tables; under
// "others", that there are more of them than names; under "retyped", the sequence number u64 at
// which a table last got another type under its number.
inline constexpr std::string_view fixedTypesTable = "lattice/fixedTypes";

inline std::string rowTable(std::string_view table) {
  return std::string(rowTablePrefix).append(table);
}

// Made with the store. A follower continues from a sequence number only within one identity.
using StoreIdentity = std::array<char, 16>;

// A record of typesTable, under the table's name.
// number u32 | typeName size u32 and bytes | definition size u32 and bytes
struct TableRecord {
  uint32_t number = 0;
  std::string typeName;
  std::string definition;

  std::string encode() const;
  static std::optional<TableRecord> decode(std::string_view bytes);
};

}  // namespace Lattice
