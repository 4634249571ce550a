// Hashing and comparing keys, which are runs of 64-bit words.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "p4/match/Entry.h"

namespace P4 {

// What a word adds to the hash of a key in which it stands at `position`. Words do not wait for
// each other, and no sender of packets gains by equal hashes: only entries make chains longer.
inline uint64_t hashWord(uint64_t word, size_t position) {
  const uint64_t seed = 0x9e3779b97f4a7c15u * (2 * position + 1);
  const auto product = static_cast<unsigned __int128>(word ^ seed) * 0xd6e8feb86659fd93u;
  return static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
}

inline size_t hashWords(const uint64_t* words, size_t count) {
  uint64_t hash = 0;
  for (size_t i = 0; i < count; ++i) hash += hashWord(words[i], i);
  return hash;
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
