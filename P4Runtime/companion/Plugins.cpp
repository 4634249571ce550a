#include "P4Runtime/companion/Plugins.h"

#include <algorithm>
#include <cctype>

namespace P4Runtime {
namespace {

constexpr size_t longestName = 64;

bool isNameCharacter(unsigned char c) {
  return std::isalnum(c) || c == '-' || c == '_' || c == '.';
}

}  // namespace

bool isPluginName(const std::string& name) {
  return !name.empty() && name.size() <= longestName && name != "all" && name[0] != '.' &&
         std::all_of(name.begin(), name.end(), isNameCharacter);
}

Vela::Ptr<Vela::Entity> PluginConfigDir::makeEntity(const std::string& name) const {
  if (!isPluginName(name)) {
    throw Vela::BadValue("'" + name +
                         "' is no name of a plugin; use letters, digits, '-', '_' and '.', at most "
                         "64 of them");
  }
  return Vela::make<PluginConfig>(name);
}

}  // namespace P4Runtime
