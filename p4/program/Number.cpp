#include "p4/program/Number.h"

namespace P4 {
namespace {

std::string_view withoutPrefix(std::string_view text) {
  if (text.size() >= 2 && text[0] == '0' && text[1] == 'x') text.remove_prefix(2);
  return text;
}

bool allHex(std::string_view text) {
  return !text.empty() &&
         text.find_first_not_of("0123456789abcdefABCDEF") == std::string_view::npos;
}

uint8_t nibble(char digit) {
  if (digit <= '9') return static_cast<uint8_t>(digit - '0');
  return static_cast<uint8_t>((digit | 0x20) - 'a' + 10);
}

}  // namespace

std::optional<Number> parseNumber(std::string_view text) {
  const bool negative = !text.empty() && text[0] == '-';
  if (negative) text.remove_prefix(1);
  text = withoutPrefix(text);
  if (!allHex(text)) return std::nullopt;
  const Number number(std::string(text), 16);
  return negative ? Number(-number) : number;
}

std::optional<std::string> parseBytes(std::string_view text) {
  text = withoutPrefix(text);
  if (!allHex(text)) return std::nullopt;
  std::string bytes((text.size() + 1) / 2, '\0');
  size_t position = bytes.size() * 2 - text.size();
  for (const char digit : text) {
    const int shift = position % 2 ? 0 : 4;
    bytes[position / 2] = static_cast<char>(bytes[position / 2] | nibble(digit) << shift);
    ++position;
  }
  return bytes;
}

Number numberOfBytes(std::string_view bytes) {
  Number number;
  mpz_import(number.get_mpz_t(), bytes.size(), 1, 1, 1, 0, bytes.data());
  return number;
}

Number powerOfTwo(uint32_t exponent) {
  Number number;
  mpz_setbit(number.get_mpz_t(), exponent);
  return number;
}

uint32_t bitLength(const Number& number) {
  if (number == 0) return 0;
  return static_cast<uint32_t>(mpz_sizeinbase(number.get_mpz_t(), 2));
}

uint64_t lowWord(const Number& number) { return wordOf(number, 0); }

uint64_t wordOf(const Number& number, size_t position) {
  Number word = number >> (64 * position);  // floors, so the sign extends
  mpz_fdiv_r_2exp(word.get_mpz_t(), word.get_mpz_t(), 64);
  return mpz_get_ui(word.get_mpz_t());
}

}  // namespace P4
