// The part of the operating system's bridging configuration that the agent reads.
#pragma once

#include <string>

#include "platform/vela/Entity.h"

namespace Bridging {

// At "bridging/config".
class Config final : public Vela::Entity {
 public:
  using Entity::Entity;
  const char* typeName() const override { return "Bridging::Config"; }

  // The switch's own MAC address, "02:00:00:00:00:01"; "": the CPU device keeps the one it has.
  VELA_ATTRIBUTE(std::string, bridgeMacAddr, "")
};

}  // namespace Bridging
