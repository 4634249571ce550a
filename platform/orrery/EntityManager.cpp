#include "platform/orrery/EntityManager.h"

namespace Orrery {

Vela::Entity& EntityManager::mounted(std::string_view path, bool forWriting) const {
  const auto found = mounts_.find(path);
  if (found == mounts_.end()) throw MountError(std::string(path) + " is not mounted");
  if (forWriting && !found->second.writable) {
    throw MountError(std::string(path) +
                     " is mounted for reading; fetch a const entity, or mount "
                     "it with mode w");
  }
  return *found->second.entity;
}

void EntityManager::refuseType(std::string_view path, const Vela::Entity& found) {
  throw MountError(std::string(path) + " is a " + found.typeName() +
                   ", which is not the type it was fetched as");
}

}  // namespace Orrery
