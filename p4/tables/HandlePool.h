// Gives out the smallest free number.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace P4 {

class HandlePool {
 public:
  uint32_t take() {
    if (free_ == 0) return next_++;
    --free_;
    size_t at = 0;
    for (size_t level = levels; level-- > 0;) {
      at = at * bits + static_cast<size_t>(std::countr_zero(levels_[level][at]));
    }
    const auto handle = static_cast<uint32_t>(at);
    for (std::vector<uint64_t>& words : levels_) {
      uint64_t& word = words[at / bits];
      word &= word - 1;  // its smallest one
      if (word != 0) break;
      at /= bits;
    }
    return handle;
  }
  void give(uint32_t handle) {
    ++free_;
    size_t at = handle;
    for (std::vector<uint64_t>& words : levels_) {
      if (words.size() <= at / bits) words.resize(at / bits + 1);
      words[at / bits] |= uint64_t{1} << at % bits;
      at /= bits;
    }
  }

 private:
  static constexpr size_t bits = 64;   // of a word
  static constexpr size_t levels = 6;  // for all numbers of 32 bits

  uint32_t next_ = 0;
  size_t free_ = 0;
  // The lowest has a bit for each number, 1 when it is free; the others have one for each word
  // below, 1 when any of its bits is.
  std::array<std::vector<uint64_t>, levels> levels_;
};

}  // namespace P4
