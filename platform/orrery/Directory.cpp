#include "platform/orrery/Directory.h"

#include <algorithm>

namespace Orrery {

Vela::Ptr<Vela::Entity> Directory::makeEntity(const std::string&) const { return nullptr; }

std::vector<std::string> Directory::entityNames() const {
  std::vector<std::string> names;
  for (const auto& [name, entity] : entityCollection().values()) names.push_back(name);
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace Orrery
