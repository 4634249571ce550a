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
inline constexpr std::string_view journalTable = "lattice/journal";
inline constexpr std::string_view typesTable = "lattice/types";
inline constexpr std::string_view metaTable = "lattice/meta";

inline std::string rowTable(std::string_view table) {
  return std::string(rowTablePrefix).append(table);
}

// Made with the store. A follower continues from a sequence number only within one identity.
using StoreIdentity = std::array<char, 16>;
inline constexpr std::string_view identityKey = "identity";

// Under "journal" in metaTable.  lastSequence u64 | trimmedUpTo u64 | typesVersion u64 | lastTable
// u32
struct JournalState {
  static constexpr std::string_view key = "journal";
  uint64_t lastSequence = 0;  // of all changes committed
  uint64_t trimmedUpTo = 0;   // the journal holds the changes after this one
  uint64_t typesVersion = 0;  // rises with each change of typesTable
  uint32_t lastTable = 0;     // the highest table number given out; numbers are used once

  std::string encode() const;
  static std::optional<JournalState> decode(std::string_view bytes);
};

// A record of typesTable, under the table's name.
// number u32 | typeName size u32 and bytes | definition size u32 and bytes
struct TableRecord {
  uint32_t number = 0;
  std::string typeName;
  std::string definition;

  std::string encode() const;
  static std::optional<TableRecord> decode(std::string_view bytes);
};

// A stored row.  entryHandle u64 | sequence u64 | packed value columns
struct StoredRow {
  static constexpr size_t headSize = 16;
  uint64_t entryHandle = 0;
  uint64_t sequence = 0;
  std::string_view value;

  static std::optional<StoredRow> decode(std::string_view bytes);
};

// One change in a journal record; a record is changes back to back, under the first one's sequence
// number, big-endian.
// sequence u64 | entryHandle u64 | table u32 | flags u8 | keySize u16 | valueSize u32 | key | value
struct JournalChange {
  static constexpr uint8_t deleted = 1;
  static constexpr uint8_t unchanged = 2;
  static constexpr size_t headSize = 27;
  uint64_t sequence = 0;
  uint64_t entryHandle = 0;
  uint32_t table = 0;
  uint8_t flags = 0;
  std::string_view key;
  std::string_view value;

  size_t encodedSize() const { return headSize + key.size() + value.size(); }
  void encode(char* to) const;
  // Takes the first change off `bytes`.
  static std::optional<JournalChange> takeFrom(std::string_view& bytes);
};

}  // namespace Lattice
