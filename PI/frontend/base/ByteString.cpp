// P4 numbers as byte strings.
#include "PI/frontend/base/ByteString.h"

#include <absl/strings/str_cat.h>

#include <bit>
#include <cstring>

namespace pi::fe::proto {

namespace {
constexpr size_t kTextBytes = 16;  // an IPv6 address is shown in full
}

std::string_view significant(std::string_view value) {
  size_t zeros = 0;
  while (zeros < value.size() && value[zeros] == '\0') ++zeros;
  return value.substr(zeros);
}

bool fits(std::string_view value, uint32_t bits) {
  if (value.empty()) return false;
  const std::string_view number = significant(value);
  if (number.empty()) return true;
  const size_t width = (number.size() - 1) * 8 + std::bit_width(static_cast<uint8_t>(number[0]));
  return width <= bits;
}

void putPadded(std::string_view value, uint8_t* out, size_t bytes) {
  if (value.size() > bytes) value.remove_prefix(value.size() - bytes);
  const size_t zeros = bytes - value.size();
  std::memset(out, 0, zeros);
  std::memcpy(out + zeros, value.data(), value.size());
}

void putBits(std::string_view value, uint32_t bits, size_t firstBit, uint8_t* out) {
  value = significant(value);
  for (size_t i = 0; i < value.size() * 8 && i < bits; ++i) {  // from the lowest bit on
    const auto byte = static_cast<uint8_t>(value[value.size() - 1 - i / 8]);
    const size_t at = firstBit + bits - 1 - i;
    if (byte >> (i % 8) & 1) out[at / 8] |= static_cast<uint8_t>(0x80u >> (at % 8));
  }
}

std::string bitsAt(const uint8_t* data, uint32_t bits, size_t firstBit) {
  std::string value(bytesOf(bits), '\0');
  for (uint32_t i = 0; i < bits; ++i) {
    const size_t at = firstBit + bits - 1 - i;
    if ((data[at / 8] >> (7 - at % 8) & 1) == 0) continue;
    char& byte = value[value.size() - 1 - i / 8];
    byte = static_cast<char>(static_cast<uint8_t>(byte) | 1u << (i % 8));
  }
  return value;
}

std::string_view shortest(const uint8_t* data, size_t bytes) {
  size_t zeros = 0;
  while (zeros + 1 < bytes && data[zeros] == 0) ++zeros;
  return {reinterpret_cast<const char*>(data) + zeros, bytes - zeros};
}

void shorten(std::string* value) {
  if (isShortest(*value)) return;
  const size_t digits = significant(*value).size();
  value->erase(0, value->size() - (digits == 0 ? 1 : digits));
}

std::string hexText(std::string_view value) {
  if (value.empty()) return "(empty)";
  std::string text = "0x";
  for (const char byte : value.substr(0, kTextBytes)) {
    absl::StrAppend(&text, absl::Hex(static_cast<uint8_t>(byte), absl::kZeroPad2));
  }
  if (value.size() > kTextBytes) text += "...";
  return text;
}

}  // namespace pi::fe::proto
