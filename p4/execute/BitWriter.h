// Appends runs of bits to bytes.
#pragma once

#include <cstdint>
#include <cstring>

#include "p4/compile/FieldPlace.h"

namespace P4 {

// The caller sees to it that there is room.
class BitWriter {
 public:
  explicit BitWriter(uint8_t* to) : begin_(to) {}

  void append(const uint8_t* from, uint32_t bit, uint32_t count) {
    if (((bit | at_ | count) & 7) == 0) {
      std::memcpy(begin_ + at_ / 8, from + bit / 8, count / 8);
      at_ += count;
      return;
    }
    for (; count > 56; count -= 56, bit += 56) append(loadBits(from, bit, 56), 56);
    if (count) append(loadBits(from, bit, count), count);
  }

  // The low `count` bits, up to 64.
  void append(uint64_t value, uint32_t count) {
    if (at_ % 8 == 0 && count) begin_[at_ / 8] = 0;
    clearAhead(count);
    storeBits(begin_, static_cast<uint32_t>(at_), count, value);
    at_ += count;
  }

  // Zero bits up to the next byte.
  void pad() { at_ = (at_ + 7) / 8 * 8; }
  size_t bytes() const { return (at_ + 7) / 8; }

 private:
  // Bytes that a run enters begin as 0, so that the last one is padded with zero bits.
  void clearAhead(uint32_t count) {
    const size_t first = at_ / 8 + 1;
    const size_t last = (at_ + count + 7) / 8;
    if (last > first) std::memset(begin_ + first, 0, last - first);
  }

  uint8_t* begin_;
  size_t at_ = 0;  // bits
};

}  // namespace P4
