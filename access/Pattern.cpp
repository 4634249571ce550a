#include "access/Pattern.h"

#include <algorithm>

namespace Access {

Pattern::Pattern(std::string_view text) : kind_(Kind::exact), text_(text) {
  if (text == "*") {
    kind_ = Kind::any;
    text_.clear();
  } else if (text.ends_with('*')) {
    kind_ = Kind::prefix;
    text_.pop_back();
  } else if (text.starts_with('*')) {
    kind_ = Kind::suffix;
    text_.erase(0, 1);
  }
}

bool Pattern::matches(std::string_view name) const {
  switch (kind_) {
    case Kind::exact:
      return name == text_;
    case Kind::prefix:
      return name.starts_with(text_);
    case Kind::suffix:
      return name.ends_with(text_);
    case Kind::any:
      return !name.empty();
  }
  return false;
}

std::string Pattern::text() const {
  switch (kind_) {
    case Kind::prefix:
      return text_ + "*";
    case Kind::suffix:
      return "*" + text_;
    case Kind::any:
      return "*";
    default:
      return text_;
  }
}

std::string Pattern::example() const {
  switch (kind_) {
    case Kind::prefix:
      return text_ + '\x01';
    case Kind::suffix:
      return '\x01' + text_;
    case Kind::any:
      return "\x01";
    default:
      return text_;
  }
}

bool Pattern::isWhole(std::string_view text) {
  const auto stars = std::ranges::count(text, '*');
  if (stars == 0) return true;
  return stars == 1 && (text.starts_with('*') || text.ends_with('*'));
}

bool matchesAny(const Patterns& patterns, std::string_view name) {
  return std::ranges::any_of(patterns, [name](const Pattern& one) { return one.matches(name); });
}

}  // namespace Access
