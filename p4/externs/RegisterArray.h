// An array of registers.
#pragma once

#include <atomic>
#include <cstdint>

#include "p4/externs/CellArray.h"

namespace P4 {

// Cells of up to 64 bits are one word, wider ones several, low word first; always cut to the width.
// The packet thread reads and writes; another thread may do so, too, a word at a time.
class RegisterArray {
 public:
  RegisterArray(uint32_t size, uint32_t bits)
      : size_(size), bits_(bits), words_((bits + 63) / 64), cells_(size_t{size} * words_) {}

  uint32_t size() const { return size_; }
  uint32_t bits() const { return bits_; }
  uint32_t words() const { return words_; }
  uint64_t word(uint32_t cell, uint32_t word = 0) const {
    return std::atomic_ref(const_cast<uint64_t&>(cells_[size_t{cell} * words_ + word]))
        .load(std::memory_order_relaxed);
  }
  void wordIs(uint32_t cell, uint32_t word, uint64_t value) {
    if (word + 1 == words_ && bits_ % 64) value &= (uint64_t{1} << bits_ % 64) - 1;
    std::atomic_ref(cells_[size_t{cell} * words_ + word]).store(value, std::memory_order_relaxed);
  }

 private:
  uint32_t size_;
  uint32_t bits_;
  uint32_t words_;
  CellArray<uint64_t> cells_;
};

}  // namespace P4
