// Wants packet access on every interface that the switch has.
#pragma once

#include <string>

#include "platform/orrery/Directory.h"
#include "platform/vela/Entity.h"
#include "platform/wirra/interfaces/InterfaceStatus.h"

namespace P4Runtime {

using IntfId = std::string;  // the name of its kernel device

// In "desiredInterfaces"; name() is the interface's id.
class DesiredIntf final : public Vela::Entity {
 public:
  using Entity::Entity;
  const char* typeName() const override { return "P4Runtime::DesiredIntf"; }
};

// Runs on the reactor.
class AddDesiredIntfSm final : public Vela::Entity {
 public:
  AddDesiredIntfSm(Vela::Ptr<const Interface::AllIntfStatusDir> allIntfStatusDir,
                   Vela::Ptr<Orrery::Directory> pamDesiredIntfDir);
  const char* typeName() const override { return "P4Runtime::AddDesiredIntfSm"; }

  VELA_READONLY_ATTRIBUTE(Vela::Ptr<const Interface::AllIntfStatusDir>, allIntfStatusDir, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<Orrery::Directory>, pamDesiredIntfDir, nullptr)
  VELA_READONLY_ATTRIBUTE(bool, initialized, false)

 public:
  void handleIntf(const IntfId& intf);
  void handleInitialized();

 private:
  Vela::Observation intfChange_;
};

}  // namespace P4Runtime
