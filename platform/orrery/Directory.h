// A directory of the state database: entities by name.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "platform/vela/Entity.h"

namespace Orrery {

// Base of every directory with a type of its own; plain ones are of this class. Gives entity(name),
// entityIs(name, entity), entityDel(name), and entityCollection() to observe: an observer gets the
// name that came, went or stands for another entity now. Call with the activity lock held.
class Directory : public Vela::Entity {
 public:
  explicit Directory(std::string name) : Entity(std::move(name)) {}
  const char* typeName() const override { return "Orrery::Directory"; }

  std::vector<std::string> entityNames() const;  // in ascending order

  // Makes the entity that a configuration file or a command may add here under a new name. The
  // caller puts it in, with its attributes set, and may remove it again. Null: this directory makes
  // none. Throws Vela::BadValue for a name that cannot be used, saying which can.
  virtual Vela::Ptr<Vela::Entity> makeEntity(const std::string& name) const;

  VELA_COLLECTION(std::string, Vela::Ptr<Vela::Entity>, entity)
};

}  // namespace Orrery
