#include "forwarder/base/FieldText.h"

#include <arpa/inet.h>

#include <string>

#include "forwarder/base/Words.h"

namespace Forwarder {
namespace {

constexpr size_t maxBytes = 1024;

std::optional<uint8_t> hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return std::nullopt;
}

// Pairs of digits; of an odd number the first stands alone.
std::optional<FieldValue> hexValue(std::string_view digits) {
  if (digits.empty() || digits.size() > 2 * maxBytes) return std::nullopt;
  FieldValue value((digits.size() + 1) / 2);
  for (size_t i = 0; i < digits.size(); ++i) {
    const auto digit = hexDigit(digits[digits.size() - 1 - i]);
    if (!digit) return std::nullopt;
    value[value.size() - 1 - i / 2] |= static_cast<uint8_t>(*digit << (i % 2 ? 4 : 0));
  }
  return value;
}

std::optional<FieldValue> numberValue(std::string_view text) {
  auto number = decimalNumber(text);
  if (!number) return std::nullopt;
  FieldValue value(sizeof *number);
  for (size_t i = value.size(); i > 0; *number >>= 8) value[--i] = static_cast<uint8_t>(*number);
  return value;
}

std::optional<FieldValue> ethernetValue(std::string_view text) {
  if (text.size() != 17) return std::nullopt;
  FieldValue value;
  for (size_t at = 0; at < text.size(); at += 3) {
    const auto high = hexDigit(text[at]);
    const auto low = hexDigit(text[at + 1]);
    if (!high || !low || (at + 2 < text.size() && text[at + 2] != ':')) return std::nullopt;
    value.push_back(static_cast<uint8_t>(*high << 4 | *low));
  }
  return value;
}

std::optional<FieldValue> ipValue(const std::string& text) {
  FieldValue value(16);
  if (inet_pton(AF_INET6, text.c_str(), value.data()) == 1) return value;
  value.resize(4);
  if (inet_pton(AF_INET, text.c_str(), value.data()) == 1) return value;
  return std::nullopt;
}

}  // namespace

std::optional<FieldValue> fieldValue(std::string_view text) {
  if (text.starts_with("0x") || text.starts_with("0X")) return hexValue(text.substr(2));
  if (auto value = numberValue(text)) return value;
  if (auto value = ethernetValue(text)) return value;
  return ipValue(std::string(text));
}

}  // namespace Forwarder
