#include "p4/compile/FieldPlace.h"

namespace P4 {

uint64_t loadBits(const uint8_t* from, uint32_t bit, uint32_t count) {
  uint64_t value = 0;
  from += bit / 8;
  bit %= 8;
  for (uint32_t done = 0; done < count;) {
    const uint32_t take = count - done < 8 - bit ? count - done : 8 - bit;
    value = value << take | (*from >> (8 - bit - take) & ((1u << take) - 1));
    done += take;
    bit = 0;
    ++from;
  }
  return value;
}

void storeBits(uint8_t* to, uint32_t bit, uint32_t count, uint64_t value) {
  to += bit / 8;
  bit %= 8;
  for (uint32_t left = count; left;) {
    const uint32_t take = left < 8 - bit ? left : 8 - bit;
    left -= take;
    const auto mask = static_cast<uint8_t>(((1u << take) - 1) << (8 - bit - take));
    *to = static_cast<uint8_t>((*to & ~mask) | ((value >> left) << (8 - bit - take) & mask));
    bit = 0;
    ++to;
  }
}

uint64_t loadWideField(const FieldPlace& place, const uint64_t* state) {
  if (!place) return 0;
  uint64_t words[64];
  loadWords(place, state, words);
  return words[0];
}

void storeWideField(const FieldPlace& place, uint64_t* state, uint64_t value) {
  if (!place) return;
  uint64_t words[64] = {value};
  storeWords(place, state, words);
}

void loadWords(const FieldPlace& place, const uint64_t* state, uint64_t* words) {
  if (place.kind != FieldPlace::Kind::bits) {
    if (place.kind == FieldPlace::Kind::slots)
      std::memcpy(words, state + place.at, place.words() * sizeof(uint64_t));
    else
      words[0] = loadField(place, state);
    return;
  }
  uint32_t end = place.lead + place.bits;  // of the bits not yet read
  for (uint32_t word = 0; word < place.words(); ++word) {
    const uint32_t count = end - place.lead < 64 ? end - place.lead : 64;
    end -= count;
    words[word] = loadBits(bytesOf(state) + place.at, end, count);
  }
}

void storeWords(const FieldPlace& place, uint64_t* state, const uint64_t* words) {
  if (place.kind == FieldPlace::Kind::slots) {
    std::memcpy(state + place.at, words, place.words() * sizeof(uint64_t));
    if (place.bits % 64)
      state[place.at + place.words() - 1] &= (uint64_t{1} << place.bits % 64) - 1;
    return;
  }
  if (place.kind != FieldPlace::Kind::bits) return storeField(place, state, words[0]);
  uint32_t end = place.lead + place.bits;
  for (uint32_t word = 0; word < place.words(); ++word) {
    const uint32_t count = end - place.lead < 64 ? end - place.lead : 64;
    end -= count;
    storeBits(bytesOf(state) + place.at, end, count, words[word]);
  }
}

}  // namespace P4
