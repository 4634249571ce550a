// Whole numbers of any size and sign, as the compiled JSON writes its constants.
#pragma once

#include <gmpxx.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace P4 {

using Number = mpz_class;

// The widest number that a program may name or compute.
inline constexpr uint32_t maxNumberBits = 4096;

// "-0x1f", "0x0800", "7f": an optional minus, an optional 0x, hex digits. Nothing for other text.
std::optional<Number> parseNumber(std::string_view text);
// "0x0800": two digits a byte; an odd count is read as if a zero stood in front. Nothing for other
// text.
std::optional<std::string> parseBytes(std::string_view text);

Number numberOfBytes(std::string_view bytes);  // big-endian, unsigned
Number powerOfTwo(uint32_t exponent);
inline Number lowMask(uint32_t bits) { return powerOfTwo(bits) - 1; }
uint32_t bitLength(const Number& number);                // of the absolute value; 0 for 0
uint64_t lowWord(const Number& number);                  // low 64 bits of the two's complement
uint64_t wordOf(const Number& number, size_t position);  // the same for word `position`

}  // namespace P4
