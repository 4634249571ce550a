// A quick 64-bit hash of bytes. The same bytes and seed give the same hash in every process.
#pragma once

#define XXH_INLINE_ALL
#include <xxhash.h>

#include <cstdint>

#include "platform/brine/Store.h"

namespace Brine {

inline uint64_t hashOf(Bytes bytes, uint64_t seed) {
  return XXH3_64bits_withSeed(bytes.data(), bytes.size(), seed);
}

}  // namespace Brine
