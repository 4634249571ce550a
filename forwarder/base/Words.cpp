#include "forwarder/base/Words.h"

#include <algorithm>
#include <charconv>

namespace Forwarder {
namespace {

constexpr std::string_view blanks = " \t\r";

std::optional<uint64_t> numberOfBase(std::string_view text, int base) {
  uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

}  // namespace

std::string_view trimmed(std::string_view text) {
  const size_t first = text.find_first_not_of(blanks);
  if (first == text.npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

std::string_view takeWord(std::string_view& text) {
  const size_t end = std::min(text.find_first_of(blanks), text.size());
  const std::string_view word = text.substr(0, end);
  text.remove_prefix(end);
  text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
  return word;
}

std::pair<std::string_view, std::string_view> splitAt(std::string_view text, char separator) {
  const size_t at = std::min(text.find(separator), text.size());
  return {text.substr(0, at), text.substr(std::min(at + 1, text.size()))};
}

std::optional<uint64_t> decimalNumber(std::string_view text) { return numberOfBase(text, 10); }

std::optional<uint64_t> decimalOrHexNumber(std::string_view text) {
  if (text.starts_with("0x") || text.starts_with("0X")) return numberOfBase(text.substr(2), 16);
  return numberOfBase(text, 10);
}

}  // namespace Forwarder
