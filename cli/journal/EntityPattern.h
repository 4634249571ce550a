// The entities that a user asks about.
#pragma once

#include <string>

namespace p4::v1 {
class Entity;
}

namespace Cli {

class EntityPattern {
 public:
  virtual ~EntityPattern() = default;
  virtual bool matches(const p4::v1::Entity& entity) const = 0;
  // Bytes that stand in the serialized form of each entity that matches; may be empty.
  virtual const std::string& needle() const = 0;
};

}  // namespace Cli
