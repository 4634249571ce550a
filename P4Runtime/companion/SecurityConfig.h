// How the P4Runtime server knows its clients, as the operator wants it.
#pragma once

#include <string>

#include "platform/vela/Entity.h"

namespace P4RuntimeConfig {

// At "p4runtime/config/security". Call with the activity lock held.
class SecurityConfig : public Vela::Entity {
 public:
  using Entity::Entity;
  const char* typeName() const override { return "P4RuntimeConfig::SecurityConfig"; }

  VELA_ATTRIBUTE(std::string, policy, "")  // who may do what, a file in JSON
};

}  // namespace P4RuntimeConfig
