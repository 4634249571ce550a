#include "forwarder/traffic/SyntheticPacket.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "platform/lattice/types/IpGenPrefix.h"

namespace Forwarder {
namespace {

using Lattice::IpGenPrefix;

uint64_t scale(uint64_t random, uint64_t below) {
  return static_cast<uint64_t>(static_cast<unsigned __int128>(random) * below >> 64);
}

// Writes a value, big-endian, into the room that a column gives it; false when it does not fit.
bool place(const FieldValue& value, uint8_t* to, size_t size) {
  const size_t extra = value.size() > size ? value.size() - size : 0;
  for (size_t i = 0; i < extra; ++i) {
    if (value[i] != 0) return false;
  }
  const size_t pad = size > value.size() ? size - value.size() : 0;
  std::memset(to, 0, pad);
  std::copy(value.begin() + static_cast<ptrdiff_t>(extra), value.end(), to + pad);
  return true;
}

// Sixteen bytes are an IPv6 address; a number is an IPv4 address.
bool placeAddress(const FieldValue& value, uint8_t* to) {
  IpGenPrefix prefix;
  const bool v6 = value.size() == 16;
  prefix.family = v6 ? IpGenPrefix::ipv6 : IpGenPrefix::ipv4;
  if (!place(value, prefix.address.data(), v6 ? 16 : 4)) return false;
  std::memcpy(to, &prefix, sizeof prefix);
  return true;
}

const uint8_t* keyOf(const StoredRow& row) {
  return reinterpret_cast<const uint8_t*>(row.key().data());
}

FieldValue matchedBitsOfPrefix(const uint8_t* prefixBytes) {
  IpGenPrefix prefix{.family = IpGenPrefix::ipv4};
  if (prefixBytes) std::memcpy(&prefix, prefixBytes, sizeof prefix);
  FieldValue mask(prefix.family == IpGenPrefix::ipv6 ? 16 : 4, 0xff);
  clearHostBits(mask.data(), static_cast<uint32_t>(mask.size()), prefix.length);
  return mask;
}

// A mask of the bits that a row's key matches; of a range, its low end. Without a row only its size
// counts.
FieldValue matchedBits(const MatchLayout& layout, const MatchField& field, const StoredRow* row) {
  if (field.kind == MatchField::Kind::prefix) {
    return matchedBitsOfPrefix(row ? keyOf(*row) + field.keyOffset : nullptr);
  }
  FieldValue mask(field.size, 0xff);
  if (row && field.kind != MatchField::Kind::range) layout.maskOf(field, row->key(), mask.data());
  return mask;
}

}  // namespace

void SyntheticPacket::fieldCountIs(size_t count) {
  values_.assign(count, {});
  definedIn_.assign(count, 0);
}

uint64_t SyntheticPacket::draw(uint64_t below) { return scale(random_(), below); }

void SyntheticPacket::beginNext() {
  ++number_;
  otherHeaders_ = random_();
}

void SyntheticPacket::fieldIs(FieldNumber field, const FieldValue& value) {
  values_[field] = value;
  definedIn_[field] = number_;
}

bool SyntheticPacket::assemble(const PlannedTable& table, const StoredRow* model) {
  const MatchLayout& layout = table.table->rows()->layout();
  bytes_.resize(layout.packetSize());
  for (size_t i = 0; i < layout.fields().size(); ++i) {
    const MatchField& field = layout.fields()[i];
    const FieldNumber number = table.fields[i];
    if (definedIn_[number] != number_) {
      drawField(layout, field, model, values_[number]);
      definedIn_[number] = number_;
    }
    uint8_t* to = bytes_.data() + field.packetOffset;
    const bool fits = field.kind == MatchField::Kind::prefix
                          ? placeAddress(values_[number], to)
                          : place(values_[number], to, field.size);
    if (!fits) return false;
  }
  return true;
}

void SyntheticPacket::drawField(const MatchLayout& layout, const MatchField& field,
                                const StoredRow* model, FieldValue& value) {
  const FieldValue mask = matchedBits(layout, field, model);
  value.resize(mask.size());
  for (size_t i = 0; i < value.size(); i += sizeof(uint64_t)) {
    const uint64_t random = random_();
    std::memcpy(value.data() + i, &random, std::min(sizeof random, value.size() - i));
  }
  if (!model) return;
  const bool isPrefix = field.kind == MatchField::Kind::prefix;
  const uint8_t* fixed =
      keyOf(*model) + field.keyOffset + (isPrefix ? offsetof(IpGenPrefix, address) : 0);
  for (size_t i = 0; i < value.size(); ++i) value[i] ^= (value[i] ^ fixed[i]) & mask[i];
}

uint64_t SyntheticPacket::hash(uint64_t bound) const {
  uint64_t hash = otherHeaders_ ^ 0xcbf29ce484222325ULL;
  for (const uint8_t byte : bytes_) hash = (hash ^ byte) * 0x100000001b3ULL;
  hash ^= hash >> 32;
  return scale(hash * 0x9e3779b97f4a7c15ULL, bound);
}

}  // namespace Forwarder
