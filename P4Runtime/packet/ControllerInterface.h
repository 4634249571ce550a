// The CPU's own network device, usually "p4controller": punted packets come in there.
#pragma once

#include <string>

#include "P4Runtime/companion/BridgingConfig.h"
#include "platform/vela/Entity.h"
#include "platform/wirra/devices/InterfaceOperations.h"

namespace P4Runtime {

inline constexpr const char* controllerIntfName = "p4controller";

// Call with the activity lock held.
class ControllerInterface final : public Vela::Entity {
 public:
  ControllerInterface(Vela::Ptr<const Bridging::Config> bridgingConfig, std::string intfName);
  const char* typeName() const override { return "P4Runtime::ControllerInterface"; }

  VELA_READONLY_ATTRIBUTE(Vela::Ptr<Wirra::InterfaceOperations>, intfOperations, nullptr)
  VELA_READONLY_ATTRIBUTE(bool, initialized, false)

 public:
  const std::string& intfName() const { return intfName_; }
  // With the switch's own MAC address when the bridging configuration has one; the device keeps its
  // own when it does not take that.
  Vela::Outcome bringUpIntf();
  Vela::Outcome bringDownIntf();
  [[nodiscard]] Vela::Observation observeMac(std::function<void()> changed) const {
    return bridgingConfig_->bridgeMacAddrAttribute().observe(std::move(changed));
  }

 private:
  void handleInitialized();
  const Vela::Ptr<const Bridging::Config> bridgingConfig_;
  const std::string intfName_;
};

Vela::Ptr<ControllerInterface> controllerInterfaceFactory(
    Vela::Ptr<const Bridging::Config> bridgingConfig, std::string intfName = controllerIntfName);

}  // namespace P4Runtime
