// Longest prefix match by probing the lengths in use.
#include "forwarder/table/PrefixTable.h"

#include <absl/container/inlined_vector.h>

#include <cstddef>

#include "platform/lattice/types/IpGenPrefix.h"

namespace Forwarder {

using Lattice::IpGenPrefix;

PrefixTable::PrefixTable(const MatchLayout& layout, RowExtras extras) : MatchTable(layout, extras) {
  for (const MatchField& field : layout.fields()) {
    if (field.kind == MatchField::Kind::prefix) prefixOffset_ = field.keyOffset;
  }
}

uint32_t& PrefixTable::countOf(const StoredRow& row) {
  const char* prefix = row.bytes() + prefixOffset_;
  const auto family = static_cast<uint8_t>(prefix[offsetof(IpGenPrefix, family)]);
  const auto length = static_cast<uint8_t>(prefix[offsetof(IpGenPrefix, length)]);
  return counts_[family][length];  // within bounds in a key that checkKey() has passed
}

const StoredRow* PrefixTable::lookup(std::span<const uint8_t> packet) const {
  // Keys of this kind of table have no masks and no priority: they are laid out like packets.
  absl::InlinedVector<uint8_t, 128> key(packet.begin(), packet.end());
  uint8_t* prefix = key.data() + prefixOffset_;
  const uint8_t family = prefix[offsetof(IpGenPrefix, family)];
  if (family != IpGenPrefix::ipv4 && family != IpGenPrefix::ipv6) return nullptr;
  const LengthCounts& counts = counts_[family];
  for (int length = family == IpGenPrefix::ipv4 ? 32 : 128; length >= 0; --length) {
    if (counts[length] == 0) continue;
    prefix[offsetof(IpGenPrefix, length)] = static_cast<uint8_t>(length);
    clearHostBits(prefix + offsetof(IpGenPrefix, address), 16, length);
    const StoredRow* hit = row({reinterpret_cast<const char*>(key.data()), key.size()});
    if (hit) return hit;
  }
  return nullptr;
}

}  // namespace Forwarder
