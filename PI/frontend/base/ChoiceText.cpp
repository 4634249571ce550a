// What a controller may give in place of what it gave.
#include "PI/frontend/base/ChoiceText.h"

#include <absl/strings/str_join.h>

#include <algorithm>

namespace pi::fe::proto {

namespace {

constexpr size_t kMostChoices = 5;  // error texts travel in small headers

}  // namespace

std::string choiceText(std::span<const std::string> choices) {
  if (choices.empty()) return "none";
  const size_t told = std::min(choices.size(), kMostChoices);
  std::string text = absl::StrJoin(choices.first(told), ", ");
  if (told < choices.size()) absl::StrAppend(&text, " and ", choices.size() - told, " more");
  return text;
}

std::string largestText(uint32_t bits) {
  if (bits > 64) return absl::StrCat("2^", bits, " - 1");
  return absl::StrCat("0x", absl::Hex(bits == 0 ? 0 : ~uint64_t{0} >> (64 - bits)));
}

}  // namespace pi::fe::proto
