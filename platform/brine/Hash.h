// A quick 64-bit hash of bytes, for indexes whose owner compares whole keys.
#pragma once

#include <cstdint>
#include <cstring>

#include "platform/brine/StoreTerms.h"

namespace Brine {

inline uint64_t mixed(uint64_t a, uint64_t b) {
  const auto product = static_cast<unsigned __int128>(a) * b;
  return static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
}

template <typename T>
inline uint64_t loaded(const uint8_t* from) {
  T value;
  std::memcpy(&value, from, sizeof value);
  return value;
}

// The same bytes and seed give the same hash on every machine of one byte order; long keys are
// stored under it, so it must never change without the layout's version.
inline uint64_t hashOf(Bytes bytes, uint64_t seed) {
  constexpr uint64_t first = 0x9e3779b97f4a7c15, second = 0xd6e8feb86659fd93;
  const uint8_t* at = bytes.data();
  size_t left = bytes.size();
  uint64_t hash = mixed(seed ^ first, left ^ second);
  for (; left > 16; at += 16, left -= 16) {
    hash = mixed(loaded<uint64_t>(at) ^ hash ^ first, loaded<uint64_t>(at + 8) ^ second);
  }
  uint64_t low = 0, high = 0;
  if (left >= 8) {
    low = loaded<uint64_t>(at);
    high = loaded<uint64_t>(at + left - 8);
  } else if (left >= 4) {
    low = loaded<uint32_t>(at);
    high = loaded<uint32_t>(at + left - 4);
  } else if (left > 0) {
    low = at[0] | uint64_t{at[left / 2]} << 8 | uint64_t{at[left - 1]} << 16;
  }
  return mixed(mixed(low ^ hash ^ first, high ^ second) ^ hash, first);
}

}  // namespace Brine
