// Which values occur: a filter that says "no" for sure.
#pragma once

#include <array>
#include <cstdint>

namespace P4 {

// Values are given by their hashes, and taken out as often as they were put in.
class PresenceFilter {
 public:
  bool mayHave(uint64_t hash) const { return bits_[placeOf(hash) / 64] >> placeOf(hash) % 64 & 1; }
  void add(uint64_t hash) {
    ++counts_[placeOf(hash)];
    bits_[placeOf(hash) / 64] |= uint64_t{1} << placeOf(hash) % 64;
  }
  void remove(uint64_t hash) {
    if (--counts_[placeOf(hash)] == 0)
      bits_[placeOf(hash) / 64] &= ~(uint64_t{1} << placeOf(hash) % 64);
  }

 private:
  static constexpr uint32_t placeBits = 13;
  static size_t placeOf(uint64_t hash) { return hash >> (64 - placeBits); }

  std::array<uint64_t, (1 << placeBits) / 64> bits_{};  // all that look-ups read: a kibibyte
  std::array<uint32_t, 1 << placeBits> counts_{};
};

}  // namespace P4
