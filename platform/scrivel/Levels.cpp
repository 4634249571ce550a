#include "platform/scrivel/Levels.h"

namespace Scrivel {
namespace {

constexpr uint32_t allLevels = (1u << 10) - 1;

std::optional<unsigned> digit(std::string_view text) {
  if (text.size() != 1 || text[0] < '0' || text[0] > '9') return std::nullopt;
  return text[0] - '0';
}

std::optional<uint32_t> levelMask(std::string_view text) {
  if (text == "all") return allLevels;
  if (text == "off") return 0;
  if (const auto one = digit(text)) return 1u << *one;
  const size_t dash = text.find('-');
  if (dash == std::string_view::npos) return std::nullopt;
  const auto first = digit(text.substr(0, dash));
  const auto last = digit(text.substr(dash + 1));
  if (!first || !last || *first > *last) return std::nullopt;
  return ((2u << *last) - 1) & ~((1u << *first) - 1);
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
  return text;
}

}  // namespace

// Remembers the last '*' and tries again from there: linear for one star, never exponential.
bool nameMatches(std::string_view pattern, std::string_view name) {
  size_t p = 0, n = 0, star = std::string_view::npos, retry = 0;
  while (n < name.size()) {
    if (p < pattern.size() && pattern[p] == '*') {
      star = p++;
      retry = n;
    } else if (p < pattern.size() && pattern[p] == name[n]) {
      ++p, ++n;
    } else if (star != std::string_view::npos) {
      p = star + 1;
      n = ++retry;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == '*') ++p;
  return p == pattern.size();
}

std::optional<Levels> Levels::parse(std::string_view text, std::string* trouble) {
  Levels levels;
  while (!trimmed(text).empty()) {
    const size_t comma = text.find(',');
    const std::string_view item = trimmed(text.substr(0, comma));
    text = comma == std::string_view::npos ? std::string_view() : text.substr(comma + 1);
    const size_t slash = item.rfind('/');
    const auto mask =
        slash == std::string_view::npos ? std::nullopt : levelMask(item.substr(slash + 1));
    if (!mask || slash == 0) {
      if (trouble) {
        *trouble = "'" + std::string(item) +
                   "' names no trace levels; write HANDLE/LEVELS such as KorvelPiTables/0-5 or */0";
      }
      return std::nullopt;
    }
    levels.items_.push_back({std::string(item.substr(0, slash)), *mask});
  }
  return levels;
}

std::optional<uint32_t> Levels::named(std::string_view handle) const {
  for (const Item& item : items_) {
    if (nameMatches(item.pattern, handle)) return item.mask;
  }
  return std::nullopt;
}

uint32_t Levels::mask(std::string_view handle) const { return named(handle).value_or(1); }

}  // namespace Scrivel
