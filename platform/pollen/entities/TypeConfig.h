// The table types, by name, that the type service shall compile.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "platform/orrery/Directory.h"

namespace Pollen {

// name() is the type's name, `definition` the text of a Lattice table type.
class TypeConfig final : public Vela::Entity {
 public:
  explicit TypeConfig(std::string name) : Entity(std::move(name)) {}
  const char* typeName() const override { return "Pollen::TypeConfig"; }

  VELA_ATTRIBUTE(std::string, definition)
};

// Call with the activity lock held.
class TypeConfigDir final : public Orrery::Directory {
 public:
  explicit TypeConfigDir(std::string name) : Directory(std::move(name)) {}
  const char* typeName() const override { return "Pollen::TypeConfigDir"; }

  Vela::Ptr<TypeConfig> typeConfig(const std::string& name) const;  // null when absent
  // Adds it, or gives it a new definition.
  Vela::Ptr<TypeConfig> typeConfigIs(const std::string& name, const std::string& definition);
  void typeConfigDel(const std::string& name) { entityDel(name); }
  void typeConfigDelAll() { entityDelAll(); }
  std::vector<std::string> typeConfigNames() const { return entityNames(); }  // ascending
};

}  // namespace Pollen
