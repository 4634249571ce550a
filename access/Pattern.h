// A text of a policy that stands for one name or for many.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Access {

// "name", "prefix*", "*suffix" or "*", which stands for every text but the empty one.
class Pattern {
 public:
  // Another '*' is taken as a letter; see isWhole().
  explicit Pattern(std::string_view text);
  bool matches(std::string_view name) const;
  std::string text() const;
  std::string example() const;  // a name that it matches, and no other pattern by chance
  // False for a '*' in the middle, or for two of them: such a text stands for nothing sensible.
  static bool isWhole(std::string_view text);

 private:
  enum class Kind { exact, prefix, suffix, any };
  Kind kind_;
  std::string text_;  // without the '*'
};

using Patterns = std::vector<Pattern>;
bool matchesAny(const Patterns& patterns, std::string_view name);

}  // namespace Access
