// Cyclic redundancy checks of 8 to 64 bits, by tables.
#pragma once

#include <array>
#include <cstdint>
#include <span>

namespace P4 {

struct CrcForm {
  int bits;
  uint64_t polynomial;
  uint64_t initial;
  bool reflected;  // input and output
  uint64_t xorOut;
};

class Crc {
 public:
  constexpr explicit Crc(const CrcForm& form) : form_(form) {
    for (uint32_t byte = 0; byte < 256; ++byte)
      table_[byte] = form.reflected ? right(byte) : left(byte);
  }

  uint64_t of(std::span<const uint8_t> bytes) const {
    uint64_t crc = form_.initial;
    if (form_.reflected) {
      for (const uint8_t byte : bytes) crc = table_[(crc ^ byte) & 0xff] ^ crc >> 8;
    } else {
      for (const uint8_t byte : bytes)
        crc = (table_[(crc >> (form_.bits - 8) ^ byte) & 0xff] ^ (form_.bits > 8 ? crc << 8 : 0)) &
              mask();
    }
    return crc ^ form_.xorOut;
  }

 private:
  constexpr uint64_t mask() const { return ~uint64_t{0} >> (64 - form_.bits); }

  constexpr uint64_t left(uint32_t byte) const {
    uint64_t crc = uint64_t{byte} << (form_.bits - 8);
    for (int bit = 0; bit < 8; ++bit)
      crc = (crc << 1 ^ (crc >> (form_.bits - 1) & 1 ? form_.polynomial : 0)) & mask();
    return crc;
  }

  constexpr uint64_t right(uint32_t byte) const {
    uint64_t polynomial = 0;
    for (int bit = 0; bit < form_.bits; ++bit)
      polynomial |= (form_.polynomial >> bit & 1) << (form_.bits - 1 - bit);
    uint64_t crc = byte;
    for (int bit = 0; bit < 8; ++bit) crc = crc >> 1 ^ (crc & 1 ? polynomial : 0);
    return crc;
  }

  CrcForm form_;
  std::array<uint64_t, 256> table_{};
};

}  // namespace P4
