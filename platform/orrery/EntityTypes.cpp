#include "platform/orrery/EntityTypes.h"

#include <utility>

#include "platform/orrery/Directory.h"

namespace Orrery {

EntityTypes::EntityTypes() { typeIs<Directory>("Orrery::Directory"); }

void EntityTypes::typeIs(const std::string& typeName, Factory factory) {
  factories_[typeName] = std::move(factory);
}

std::vector<std::string> EntityTypes::names() const {
  std::vector<std::string> names;
  for (const auto& [name, factory] : factories_) names.push_back(name);
  return names;
}

bool EntityTypes::has(std::string_view typeName) const {
  return factories_.find(typeName) != factories_.end();
}

Vela::Ptr<Vela::Entity> EntityTypes::make(std::string_view typeName,
                                          const std::string& path) const {
  const auto found = factories_.find(typeName);
  return found == factories_.end() ? nullptr : found->second(path);
}

EntityTypes& TheEntityTypes() {
  static auto* types = new EntityTypes;
  return *types;
}

}  // namespace Orrery
