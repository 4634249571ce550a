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
constexpr size_t prefixLength = offsetof(IpGenPrefix, length);

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
    if (column.role == ColumnRole::priority) {
      priorityOffset_ = offset;
      prioritySize_ = column.size;
    } else if (column.role == ColumnRole::mask && !fields_.empty()) {
      fields_.back().kind = MatchField::Kind::ternary;
      fields_.back().maskOffset = offset;
    } else {
      addField(column, offset);
    }
    offset += column.size;
  }
  hasPrefix_ = fieldCount(MatchField::Kind::prefix) > 0;
  kind_ = kindOf(type);
}

void MatchLayout::addField(const Lattice::Column& column, uint32_t keyOffset) {
  const bool isPrefix = column.type == ColumnType::ipGenPrefix;
  fields_.push_back({.name = column.name,
                     .kind = isPrefix ? MatchField::Kind::prefix : MatchField::Kind::exact,
                     .size = column.size,
                     .keyOffset = keyOffset,
                     .packetOffset = packetSize_});
  packetSize_ += column.size;
}

size_t MatchLayout::fieldCount(MatchField::Kind kind) const {
  return std::ranges::count(fields_, kind, &MatchField::kind);
}

MatchKind MatchLayout::kindOf(const Lattice::TableType& type) const {
  const size_t prefixes = fieldCount(MatchField::Kind::prefix);
  const bool hasRange =
      std::ranges::count(type.keyColumns(), ColumnRole::range, &Lattice::Column::role) > 0;
  const bool ranked =
      hasRange || priorityOffset_.has_value() || fieldCount(MatchField::Kind::ternary) > 0;
  if (ranked || prefixes > 1) return MatchKind::ternary;
  return prefixes == 1 ? MatchKind::longestPrefix : MatchKind::exact;
}

uint64_t MatchLayout::priority(std::string_view key) const {
  uint64_t priority = 0;
  if (!priorityOffset_) return priority;
  for (uint32_t i = 0; i < prioritySize_; ++i) {
    priority = priority << 8 | static_cast<uint8_t>(key[*priorityOffset_ + i]);
  }
  return priority;
}

void MatchLayout::maskOf(std::string_view key, uint8_t* mask) const {
  for (const MatchField& field : fields_) {
    uint8_t* out = mask + field.packetOffset;
    switch (field.kind) {
      case MatchField::Kind::exact:
        std::memset(out, 0xff, field.size);
        break;
      case MatchField::Kind::ternary:
        std::memcpy(out, key.data() + field.maskOffset, field.size);
        break;
      case MatchField::Kind::prefix:
        std::memset(out, 0, field.size);
        out[offsetof(IpGenPrefix, family)] = 0xff;
        std::memset(out + prefixAddress, 0xff, field.size - prefixAddress);
        clearHostBits(out + prefixAddress, field.size - prefixAddress,
                      static_cast<uint8_t>(key[field.keyOffset + prefixLength]));
        break;
    }
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

void MatchLayout::checkKey(std::string_view key) const {
  if (key.size() != keySize_) {
    throw TypeError("its key has " + std::to_string(key.size()) + " bytes where the type has " +
                    std::to_string(keySize_));
  }
  if (!hasPrefix_) return;
  for (const MatchField& field : fields_) {
    if (field.kind != MatchField::Kind::prefix) continue;
    checkPrefix(field.name, reinterpret_cast<const uint8_t*>(key.data()) + field.keyOffset);
  }
}

}  // namespace Forwarder
