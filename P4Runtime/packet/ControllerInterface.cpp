#include "P4Runtime/packet/ControllerInterface.h"

#include <utility>

#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("ControllerInterface");

// Addresses that an operator gave the device stay.
constexpr bool keepConfigured = true;

}  // namespace

ControllerInterface::ControllerInterface(Vela::Ptr<const Bridging::Config> bridgingConfig)
    : Entity("controllerInterface"), bridgingConfig_(std::move(bridgingConfig)) {
  handleInitialized();
}

Vela::Ptr<ControllerInterface> controllerInterfaceFactory(
    Vela::Ptr<const Bridging::Config> bridgingConfig) {
  return Vela::make<ControllerInterface>(std::move(bridgingConfig));
}

void ControllerInterface::handleInitialized() {
  SCRIVEL_TRACE(1, "handleInitialized");
  intfOperationsIs(Vela::make<Wirra::InterfaceOperations>());
  initializedIs(true);
}

Vela::Outcome ControllerInterface::bringUpIntf() {
  const std::string& mac = bridgingConfig_->bridgeMacAddr();
  SCRIVEL_TRACE(1, "bringUpIntf", " mac:", mac);
  Vela::Outcome withMac = intfOperations()->up(controllerIntfName, mac, keepConfigured);
  if (withMac.ok() || mac.empty()) return withMac;
  // Packets matter more than the address that they come from.
  SCRIVEL_TRACE(0, "bringUpIntf", " ", withMac.reason());
  (void)intfOperations()->up(controllerIntfName, "", keepConfigured);  // the first reason is told
  return withMac;
}

Vela::Outcome ControllerInterface::bringDownIntf() {
  SCRIVEL_TRACE(1, "bringDownIntf");
  return intfOperations()->down(controllerIntfName);
}

}  // namespace P4Runtime
