// Hashing and comparing keys, which are runs of 64-bit words.
#pragma once

#define XXH_INLINE_ALL
#include <xxhash.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "p4/match/Entry.h"

namespace P4 {

inline size_t hashWords(const uint64_t* words, size_t count) {
  if (count == 1) {
    const auto product =
        static_cast<unsigned __int128>(words[0] ^ 0x9e3779b97f4a7c15u) * 0xd6e8feb86659fd93u;
    return static_cast<size_t>(product) ^ static_cast<size_t>(product >> 64);
  }
  return XXH3_64bits(words, count * sizeof(uint64_t));
}

inline bool equalWords(const uint64_t* one, const uint64_t* other, size_t count) {
  for (size_t i = 0; i < count; ++i)
    if (one[i] != other[i]) return false;
  return true;
}

// A key that belongs to no entry.
struct KeyView {
  const uint64_t* words;
};

// Both take entries and views, and look at the first `count` words of the value.
struct KeyHash {
  using is_transparent = void;
  size_t count = 0;
  size_t operator()(const Entry* entry) const { return hashWords(entry->value(), count); }
  size_t operator()(KeyView key) const { return hashWords(key.words, count); }
};

struct KeyEqual {
  using is_transparent = void;
  size_t count = 0;
  static const uint64_t* wordsOf(const Entry* entry) { return entry->value(); }
  static const uint64_t* wordsOf(KeyView key) { return key.words; }
  template <typename One, typename Other>
  bool operator()(const One& one, const Other& other) const {
    return equalWords(wordsOf(one), wordsOf(other), count);
  }
};

}  // namespace P4
