// P4 numbers as byte strings, as controllers, the PI interface and we write them: big-endian and
// unsigned.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace pi::fe::proto {

inline size_t bytesOf(uint32_t bits) { return (bits + 7) / 8; }

// The value without its leading zero bytes; empty for zero.
std::string_view significant(std::string_view value);

// Whether the value is a number of at most `bits` bits. Longer forms with leading zeros count by
// their number; the empty string is no number.
bool fits(std::string_view value, uint32_t bits);

// Writes a value that fits into exactly `bytes` bytes, zeros in front.
void putPadded(std::string_view value, uint8_t* out, size_t bytes);

// Writes a value that fits into the `bits` bits from `firstBit` on, counted from the highest of
// out[0]; these must be 0.
void putBits(std::string_view value, uint32_t bits, size_t firstBit, uint8_t* out);
// The number in such bits, in bytesOf(bits) bytes.
std::string bitsAt(const uint8_t* data, uint32_t bits, size_t firstBit);

// The shortest form: no leading zero bytes, zero as one byte 00.
std::string_view shortest(const uint8_t* data, size_t bytes);
inline void setShortest(const uint8_t* data, size_t bytes, std::string* out) {
  const std::string_view value = shortest(data, bytes);
  out->assign(value.data(), value.size());
}

inline bool isShortest(std::string_view value) { return value.size() < 2 || value[0] != '\0'; }
void shorten(std::string* value);  // to that form; an empty one stays so

// "0x1f"; long values are cut, since error texts travel in small headers.
std::string hexText(std::string_view value);

}  // namespace pi::fe::proto
