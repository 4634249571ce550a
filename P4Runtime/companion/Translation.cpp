#include "P4Runtime/companion/Translation.h"

#include <set>
#include <sstream>

#include "platform/vela/Text.h"

namespace P4RuntimeConfig {
namespace {

constexpr uint32_t largest = 0x3fffffff;  // others are for constant entries and controllers
constexpr size_t mostBytes = 1000;        // of a name

FixedName fixedName(const std::string& word) {
  const size_t equals = word.rfind('=');
  if (equals == std::string::npos || equals == 0) {
    return {word, "", 0, "it is not of the form NAME=NUMBER"};
  }
  const auto number = Vela::TextForm<uint32_t>::fromText(word.substr(equals + 1));
  FixedName fixed{word, word.substr(0, equals), number.value_or(0)};
  if (!number || *number == 0 || *number > largest) {
    fixed.fault = "its number is none from 1 to " + std::to_string(largest);
  }
  if (fixed.name.size() > mostBytes) {
    fixed.fault = "its name has more than " + std::to_string(mostBytes) + " bytes";
  }
  return fixed;
}

}  // namespace

Vela::Ptr<Vela::Entity> TranslationConfigDir::makeEntity(const std::string& name) const {
  return Vela::make<TranslationConfig>(name);
}

std::vector<FixedName> fixedNames(const std::string& names) {
  std::vector<FixedName> all;
  std::set<std::string> taken;
  std::set<uint32_t> numbers;
  std::istringstream words(names);
  for (std::string word; words >> word;) {
    FixedName fixed = fixedName(word);
    if (fixed.fault.empty() && !taken.insert(fixed.name).second) {
      fixed.fault = "the name stands there twice";
    }
    if (fixed.fault.empty() && !numbers.insert(fixed.number).second) {
      fixed.fault = "the number stands there twice";
    }
    all.push_back(std::move(fixed));
  }
  return all;
}

}  // namespace P4RuntimeConfig
