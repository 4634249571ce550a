// The Internet checksum: the complement of the sum of 16-bit words in one's complement.
#pragma once

#include <cstdint>
#include <cstring>
#include <span>

namespace P4 {

// Takes the bytes in runs. All but the last run are of even length; an odd one ends with a zero
// byte. The sum is the same in either byte order but for the order of its own bytes.
class InternetSum {
 public:
  void add(std::span<const uint8_t> bytes) {
    size_t at = 0;
    for (; at + sizeof(uint64_t) <= bytes.size(); at += sizeof(uint64_t))
      add(load<uint64_t>(bytes.data() + at));
    for (; at + sizeof(uint16_t) <= bytes.size(); at += sizeof(uint16_t))
      add(load<uint16_t>(bytes.data() + at));
    if (at < bytes.size()) add(uint64_t{bytes[at]});
  }

  uint64_t checksum() const {
    uint64_t sum = (sum_ & 0xffffffff) + (sum_ >> 32);
    sum = (sum & 0xffffffff) + (sum >> 32);
    sum = (sum & 0xffff) + (sum >> 16);
    sum = (sum & 0xffff) + (sum >> 16);
    return ~static_cast<uint64_t>(__builtin_bswap16(static_cast<uint16_t>(sum))) & 0xffff;
  }

 private:
  template <typename Word>
  static uint64_t load(const uint8_t* from) {
    Word word;
    std::memcpy(&word, from, sizeof word);
    return word;
  }
  void add(uint64_t word) {
    sum_ += word;
    sum_ += sum_ < word;  // the carry comes round
  }

  uint64_t sum_ = 0;
};

}  // namespace P4
