// How packets are matched against a table's keys: derived once from the table's type.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/lattice/types/TableType.h"

namespace Forwarder {

struct MatchField {
  // Of a prefix, the length is in the IpGenPrefix; of a bit prefix, in the column behind the value.
  enum class Kind : uint8_t { exact, ternary, prefix, bitPrefix, range, optional };
  std::string name;
  Kind kind = Kind::exact;
  uint32_t size = 0;       // bytes, in key and packet alike
  uint32_t bits = 0;       // bit prefix only: of the field
  uint32_t keyOffset = 0;  // of the value in a packed key
  // Of the second column in a packed key: a mask, a high end, a length or a presence.
  uint32_t secondOffset = 0;
  uint32_t secondSize = 0;    // bytes
  uint32_t packetOffset = 0;  // of the field in a packet
};

// The structure in which a table's look-ups stay cheap.
enum class MatchKind : uint8_t {
  exact,          // exact fields alone, or no key at all
  longestPrefix,  // one prefix, exact fields beside it
  ternary,        // masks, ranges, priorities, or several prefixes
};

// A packet's fields are packed like a key without its mask and priority columns: integers
// big-endian, addresses in network order, and for a prefix an IpGenPrefix that holds the packet's
// family and address (its length is not read). A range of one column matches the value in it.
// Immutable: any thread may read it.
class MatchLayout {
 public:
  explicit MatchLayout(const Lattice::TableType& type);

  MatchKind kind() const { return kind_; }
  const std::vector<MatchField>& fields() const { return fields_; }
  uint32_t keySize() const { return keySize_; }        // bytes
  uint32_t packetSize() const { return packetSize_; }  // bytes

  // Throws Lattice::TypeError when a key does not have the type's size, or holds a prefix, a range
  // or a presence that no packet could match.
  void checkKey(std::string_view key) const;

  // The functions below take only keys that have passed checkKey().
  uint64_t priority(std::string_view key) const;  // the greatest wins; 0 without such a column
  // The mask and the masked value of a key, laid out like a packet. A packet matches the key when
  // the packet under `mask` equals `value`, and inRanges() holds. Both have packetSize() bytes.
  void maskOf(std::string_view key, uint8_t* mask) const;
  void maskOf(const MatchField& field, std::string_view key, uint8_t* mask) const;  // its bytes
  void valueUnder(const uint8_t* mask, std::string_view key, uint8_t* value) const;
  bool hasRanges() const { return hasRanges_; }
  bool inRanges(const uint8_t* packet, std::string_view key) const;
  // Bits of the key's prefix in that field; 0 for a field of another kind.
  uint64_t prefixLength(const MatchField& field, std::string_view key) const;

 private:
  void addField(const Lattice::Column& column, uint32_t keyOffset);
  void addSecond(const Lattice::Column& column, uint32_t keyOffset);
  void checkField(const MatchField& field, std::string_view key) const;
  size_t fieldCount(MatchField::Kind kind) const;
  MatchKind kindOf(const Lattice::TableType& type) const;  // once the fields are known

  std::vector<MatchField> fields_;
  std::optional<uint32_t> priorityOffset_;
  uint32_t prioritySize_ = 0;
  uint32_t keySize_ = 0;
  uint32_t packetSize_ = 0;
  bool isChecked_ = false;  // some field has keys that match no packet
  bool hasRanges_ = false;
  MatchKind kind_ = MatchKind::exact;
};

// Clears all bits of an address but the first `length`.
void clearHostBits(uint8_t* address, uint32_t addressSize, uint32_t length);

}  // namespace Forwarder
