// The key of every cache record.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <span>
#include <string>

#include "P4Runtime/companion/ResourceId.h"

namespace P4Runtime {

struct CacheKey {
  ResourceId rid;
  EntryHandle entryHandle = 0;  // for members and groups the member or group handle

  friend auto operator<=>(const CacheKey&, const CacheKey&) = default;
};

std::string toText(const CacheKey& key);

// The key's bytes in a shared-memory table: type, id and handle, big-endian, so that records sort
// by resource and then by handle.
std::array<uint8_t, 16> storedKey(const CacheKey& key);
CacheKey cacheKeyOf(std::span<const uint8_t> storedKey);        // {} for a malformed key
std::array<uint8_t, 8> storedKeyPrefix(const ResourceId& rid);  // how a resource's keys begin

}  // namespace P4Runtime

template <>
struct std::hash<P4Runtime::CacheKey> {
  size_t operator()(const P4Runtime::CacheKey& key) const noexcept {
    const size_t seed = std::hash<P4Runtime::ResourceId>()(key.rid);
    return seed ^ (std::hash<uint64_t>()(key.entryHandle) + 0x9e3779b97f4a7c15ULL + (seed << 6) +
                   (seed >> 2));
  }
};
