// What a controller may give in place of what it gave, for messages.
#pragma once

#include <absl/strings/str_cat.h>

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace pi::fe::proto {

// "1 vrf, 2 dst", and how many more there are; "none".
std::string choiceText(std::span<const std::string> choices);

// Of fields or parameters: "1 vrf, 2 dst".
template <typename Plans>
std::string choices(const Plans& plans) {
  std::vector<std::string> texts;
  for (const auto& plan : plans) texts.push_back(absl::StrCat(plan.id, " ", plan.name));
  return choiceText(texts);
}

// The largest number of that many bits.
std::string largestText(uint32_t bits);

}  // namespace pi::fe::proto
