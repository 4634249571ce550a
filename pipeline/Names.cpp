// Sanitizing, uniqueness and lookup of names.
#include "pipeline/Names.h"

#include <algorithm>
#include <array>

namespace Pipeline {
namespace {

constexpr size_t maxNameLength = 180;  // leaves room for suffixes in the names of stores

// Of the definition language, and the columns that definitions add themselves.
constexpr std::array<std::string_view, 11> reservedWords = {
    "action", "counter", "indirect_id", "is_group", "key",  "mask",
    "meter",  "none",    "priority",    "range",    "value"};

bool isWordChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

// Each run of other characters becomes one '_'; none at the ends.
std::string sanitized(std::string_view name, std::string_view kept) {
  std::string result;
  bool gap = false;
  for (const char c : name) {
    const bool keep = isWordChar(c) || (kept.find(c) != std::string_view::npos && !result.empty());
    if (!keep) {
      gap = true;
      continue;
    }
    if (gap && !result.empty() && isWordChar(c) && isWordChar(result.back())) result += '_';
    gap = false;
    result += c;
  }
  while (!result.empty() && !isWordChar(result.back())) result.pop_back();
  return result.substr(0, maxNameLength);
}

size_t editDistance(std::string_view a, std::string_view b) {
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j < row.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t substituted = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
      diagonal = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, substituted});
    }
  }
  return row[b.size()];
}

}  // namespace

std::string lowered(std::string_view text) {
  std::string result(text);
  for (char& c : result) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return result;
}

std::string quoted(std::string_view text) { return '"' + std::string(text) + '"'; }

std::string legalName(std::string_view p4Name, std::string_view fallback) {
  std::string name = sanitized(p4Name, "");
  if (name.empty()) name = fallback;
  if (name[0] >= '0' && name[0] <= '9') name = "f_" + name;
  const auto reserved = std::find(reservedWords.begin(), reservedWords.end(), lowered(name));
  if (reserved != reservedWords.end()) name += '_';
  return name;
}

std::string legalTableName(std::string_view p4Name, std::string_view fallback) {
  const std::string name = sanitized(p4Name, "._-");
  return name.empty() ? std::string(fallback) : name;
}

std::string UniqueNames::take(std::string name) {
  std::string candidate = name;
  for (unsigned n = 2; !taken_.insert(lowered(candidate)).second; ++n) {
    candidate = name + '_' + std::to_string(n);
  }
  return candidate;
}

bool namesObject(std::string_view text, std::string_view p4Name) {
  if (text.empty() || !p4Name.ends_with(text)) return false;
  return p4Name.size() == text.size() || p4Name[p4Name.size() - text.size() - 1] == '.';
}

std::string didYouMean(std::string_view text, const std::vector<std::string>& names) {
  const std::string* best = nullptr;
  size_t bestDistance = 3;  // beyond two slips it is a guess
  for (const std::string& name : names) {
    const std::string_view tail = std::string_view(name).substr(
        name.rfind('.') == std::string::npos ? 0 : name.rfind('.') + 1);
    const size_t distance = std::min(editDistance(text, name), editDistance(text, tail));
    if (distance < bestDistance) {
      bestDistance = distance;
      best = &name;
    }
  }
  return best == nullptr ? "" : "; did you mean " + quoted(*best) + "?";
}

}  // namespace Pipeline
