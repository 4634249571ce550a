// Entity types by name, so that a mount can create its entity.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/vela/Entity.h"

namespace Orrery {

// Call with the activity lock held.
class EntityTypes {
 public:
  using Factory = std::function<Vela::Ptr<Vela::Entity>(std::string path)>;

  EntityTypes();  // knows "Orrery::Directory"
  void typeIs(const std::string& typeName, Factory factory);
  // For a type that is constructed from its path. Its typeName() must be `typeName`.
  template <typename T>
  void typeIs(const std::string& typeName) {
    typeIs(typeName, [](std::string path) { return Vela::Ptr<Vela::Entity>(new T(path)); });
  }
  std::vector<std::string> names() const;  // ascending
  bool has(std::string_view typeName) const;
  Vela::Ptr<Vela::Entity> make(std::string_view typeName,
                               const std::string& path) const;  // or null

 private:
  std::map<std::string, Factory, std::less<>> factories_;
};

EntityTypes& TheEntityTypes();

}  // namespace Orrery
