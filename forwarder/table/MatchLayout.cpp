// Walks a type's key columns once, so that matching needs nothing but offsets.
#include "forwarder/table/MatchLayout.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "platform/lattice/types/IpGenPrefix.h"

namespace Forwarder {
namespace {

using Lattice::ColumnRole;
using Lattice::ColumnType;
using Lattice::IpGenPrefix;
using Lattice::TypeError;

constexpr size_t prefixAddress = offsetof(IpGenPrefix, address);
constexpr size_t prefixLengthAt = offsetof(IpGenPrefix, length);

uint32_t addressBits(uint8_t family) {
  if (family == IpGenPrefix::ipv4) return 32;
  if (family == IpGenPrefix::ipv6) return 128;
  return 0;
}

void checkPrefix(const std::string& name, const uint8_t* bytes) {
  IpGenPrefix prefix;
  std::memcpy(&prefix, bytes, sizeof prefix);
  const auto refuse = [&](const std::string& fault) {
    throw TypeError("key column " + name + " holds " + fault);
  };
  const uint32_t bits = addressBits(prefix.family);
  if (bits == 0) refuse("a prefix of unknown family " + std::to_string(prefix.family));
  if (prefix.length > bits) {
    refuse("a prefix of " + std::to_string(prefix.length) + " bits, longer than its address");
  }
  IpGenPrefix canonical{.family = prefix.family, .length = prefix.length};
  canonical.address = prefix.address;
  clearHostBits(canonical.address.data(), canonical.address.size(), prefix.length);
  if (canonical != prefix) refuse("bits behind its prefix length");
}

uint64_t numberAt(std::string_view key, uint32_t offset, uint32_t size) {
  uint64_t number = 0;
  for (uint32_t i = 0; i < size; ++i) number = number << 8 | static_cast<uint8_t>(key[offset + i]);
  return number;
}

// Sets the first `length` of a number's bits, which end with the last byte.
void setPrefixMask(const MatchField& field, uint64_t length, uint8_t* mask) {
  std::memset(mask, 0xff, field.size);
  if (field.bits % 8 != 0) mask[0] = static_cast<uint8_t>((1u << (field.bits % 8)) - 1);
  clearHostBits(mask, field.size, field.size * 8 - field.bits + static_cast<uint32_t>(length));
}

}  // namespace

void clearHostBits(uint8_t* address, uint32_t addressSize, uint32_t length) {
  uint32_t byte = length / 8;
  if (byte >= addressSize) return;
  if (length % 8) address[byte++] &= static_cast<uint8_t>(0xff00u >> (length % 8));
  std::memset(address + byte, 0, addressSize - byte);
}

MatchLayout::MatchLayout(const Lattice::TableType& type) : keySize_(type.keySize()) {
  uint32_t offset = 0;
  for (const Lattice::Column& column : type.keyColumns()) {
    switch (column.role) {
      case ColumnRole::priority:
        priorityOffset_ = offset;
        prioritySize_ = column.size;
        break;
      case ColumnRole::mask:
      case ColumnRole::high:
      case ColumnRole::length:
      case ColumnRole::present:
        addSecond(column, offset);
        break;
      default:
        addField(column, offset);
    }
    offset += column.size;
  }
  hasRanges_ = fieldCount(MatchField::Kind::range) > 0;
  isChecked_ = hasRanges_ || fieldCount(MatchField::Kind::prefix) > 0 ||
               fieldCount(MatchField::Kind::bitPrefix) > 0 ||
               fieldCount(MatchField::Kind::optional) > 0;
  kind_ = kindOf(type);
}

void MatchLayout::addField(const Lattice::Column& column, uint32_t keyOffset) {
  const bool isPrefix = column.type == ColumnType::ipGenPrefix;
  fields_.push_back({.name = column.name,
                     .kind = isPrefix ? MatchField::Kind::prefix : MatchField::Kind::exact,
                     .size = column.size,
                     .bits = column.bits,
                     .keyOffset = keyOffset,
                     .packetOffset = packetSize_});
  packetSize_ += column.size;
}

void MatchLayout::addSecond(const Lattice::Column& column, uint32_t keyOffset) {
  MatchField& field = fields_.back();  // the type has the pair
  field.secondOffset = keyOffset;
  field.secondSize = column.size;
  field.kind = column.role == ColumnRole::mask     ? MatchField::Kind::ternary
               : column.role == ColumnRole::high   ? MatchField::Kind::range
               : column.role == ColumnRole::length ? MatchField::Kind::bitPrefix
                                                   : MatchField::Kind::optional;
  if (field.bits == 0) field.bits = field.size * 8;
}

size_t MatchLayout::fieldCount(MatchField::Kind kind) const {
  return std::ranges::count(fields_, kind, &MatchField::kind);
}

MatchKind MatchLayout::kindOf(const Lattice::TableType& type) const {
  using Kind = MatchField::Kind;
  const size_t prefixes = fieldCount(Kind::prefix);
  const bool hasSingleRange =
      std::ranges::count(type.keyColumns(), ColumnRole::range, &Lattice::Column::role) > 0;
  const size_t others = fieldCount(Kind::ternary) + fieldCount(Kind::bitPrefix) +
                        fieldCount(Kind::range) + fieldCount(Kind::optional);
  if (hasSingleRange || priorityOffset_.has_value() || others > 0 || prefixes > 1) {
    return MatchKind::ternary;
  }
  return prefixes == 1 ? MatchKind::longestPrefix : MatchKind::exact;
}

uint64_t MatchLayout::priority(std::string_view key) const {
  return priorityOffset_ ? numberAt(key, *priorityOffset_, prioritySize_) : 0;
}

uint64_t MatchLayout::prefixLength(const MatchField& field, std::string_view key) const {
  if (field.kind == MatchField::Kind::prefix) {
    return static_cast<uint8_t>(key[field.keyOffset + prefixLengthAt]);
  }
  if (field.kind != MatchField::Kind::bitPrefix) return 0;
  return numberAt(key, field.secondOffset, field.secondSize);
}

void MatchLayout::maskOf(std::string_view key, uint8_t* mask) const {
  for (const MatchField& field : fields_) maskOf(field, key, mask + field.packetOffset);
}

void MatchLayout::maskOf(const MatchField& field, std::string_view key, uint8_t* mask) const {
  switch (field.kind) {
    case MatchField::Kind::exact:
      std::memset(mask, 0xff, field.size);
      break;
    case MatchField::Kind::ternary:
      std::memcpy(mask, key.data() + field.secondOffset, field.size);
      break;
    case MatchField::Kind::prefix:
      std::memset(mask, 0, field.size);
      mask[offsetof(IpGenPrefix, family)] = 0xff;
      std::memset(mask + prefixAddress, 0xff, field.size - prefixAddress);
      clearHostBits(mask + prefixAddress, field.size - prefixAddress,
                    static_cast<uint32_t>(prefixLength(field, key)));
      break;
    case MatchField::Kind::bitPrefix:
      setPrefixMask(field, prefixLength(field, key), mask);
      break;
    case MatchField::Kind::range:
      std::memset(mask, 0, field.size);
      break;
    case MatchField::Kind::optional:
      std::memset(mask, key[field.secondOffset] != 0 ? 0xff : 0, field.size);
      break;
  }
}

void MatchLayout::valueUnder(const uint8_t* mask, std::string_view key, uint8_t* value) const {
  for (const MatchField& field : fields_) {
    const auto* in = reinterpret_cast<const uint8_t*>(key.data()) + field.keyOffset;
    for (uint32_t i = 0; i < field.size; ++i) {
      value[field.packetOffset + i] = in[i] & mask[field.packetOffset + i];
    }
  }
}

bool MatchLayout::inRanges(const uint8_t* packet, std::string_view key) const {
  return std::ranges::all_of(fields_, [&](const MatchField& field) {
    if (field.kind != MatchField::Kind::range) return true;
    const uint8_t* value = packet + field.packetOffset;
    return std::memcmp(value, key.data() + field.keyOffset, field.size) >= 0 &&
           std::memcmp(value, key.data() + field.secondOffset, field.size) <= 0;
  });
}

void MatchLayout::checkKey(std::string_view key) const {
  if (key.size() != keySize_) {
    throw TypeError("its key has " + std::to_string(key.size()) + " bytes where the type has " +
                    std::to_string(keySize_));
  }
  if (!isChecked_) return;
  for (const MatchField& field : fields_) checkField(field, key);
}

void MatchLayout::checkField(const MatchField& field, std::string_view key) const {
  const auto* value = reinterpret_cast<const uint8_t*>(key.data()) + field.keyOffset;
  const auto refuse = [&](const std::string& fault) {
    throw TypeError("key column " + field.name + " holds " + fault);
  };
  switch (field.kind) {
    case MatchField::Kind::prefix:
      return checkPrefix(field.name, value);
    case MatchField::Kind::bitPrefix: {
      const uint64_t length = prefixLength(field, key);
      if (length > field.bits) {
        refuse("a prefix of " + std::to_string(length) + " bits, longer than its " +
               std::to_string(field.bits));
      }
      std::string mask(field.size, '\0');
      setPrefixMask(field, length, reinterpret_cast<uint8_t*>(mask.data()));
      for (uint32_t i = 0; i < field.size; ++i) {
        if ((value[i] & ~static_cast<uint8_t>(mask[i])) != 0)
          refuse("bits behind its prefix length");
      }
      return;
    }
    case MatchField::Kind::range:
      if (std::memcmp(value, key.data() + field.secondOffset, field.size) > 0) {
        refuse("a range that ends before it begins");
      }
      return;
    case MatchField::Kind::optional: {
      const auto present = static_cast<uint8_t>(key[field.secondOffset]);
      if (present > 1) refuse("a presence of " + std::to_string(present));
      const bool isZero = std::all_of(value, value + field.size, [](uint8_t b) { return b == 0; });
      if (present == 0 && !isZero) refuse("a value that is not present");
      return;
    }
    default:
      return;
  }
}

}  // namespace Forwarder
