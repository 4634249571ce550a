#include "platform/orrery/Directory.h"

#include <algorithm>

namespace Orrery {

std::vector<std::string> Directory::entityNames() const {
  std::vector<std::string> names;
  for (const auto& [name, entity] : entityCollection().values()) names.push_back(name);
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace Orrery
