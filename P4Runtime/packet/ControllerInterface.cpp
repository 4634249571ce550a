#include "P4Runtime/packet/ControllerInterface.h"

#include <utility>

#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("ControllerInterface");

// Addresses that an operator gave the device stay.
constexpr bool keepConfigured = true;

}  // namespace

ControllerInterface::ControllerInterface(Vela::Ptr<const Bridging::Config> bridgingConfig,
                                         std::string intfName)
    : Entity("controllerInterface"),
      bridgingConfig_(std::move(bridgingConfig)),
      intfName_(std::move(intfName)) {
  handleInitialized();
}

Vela::Ptr<ControllerInterface> controllerInterfaceFactory(
    Vela::Ptr<const Bridging::Config> bridgingConfig, std::string intfName) {
  return Vela::make<ControllerInterface>(std::move(bridgingConfig), std::move(intfName));
}

void ControllerInterface::handleInitialized() {
  SCRIVEL_TRACE(1, "handleInitialized");
  intfOperationsIs(Vela::make<Wirra::InterfaceOperations>());
  initializedIs(true);
}

Vela::Outcome ControllerInterface::bringUpIntf() {
  const std::string& mac = bridgingConfig_->bridgeMacAddr();
  SCRIVEL_TRACE(1, "bringUpIntf", " mac:", mac);
  Vela::Outcome withMac = intfOperations()->up(intfName_, mac, keepConfigured);
  if (withMac.ok() || mac.empty()) return withMac;
  // Packets matter more than the address that they come from.
  SCRIVEL_TRACE(0, "bringUpIntf", " ", withMac.reason());
  (void)intfOperations()->up(intfName_, "", keepConfigured);  // the first reason is told
  return withMac;
}

Vela::Outcome ControllerInterface::bringDownIntf() {
  SCRIVEL_TRACE(1, "bringDownIntf");
  return intfOperations()->down(intfName_);
}

}  // namespace P4Runtime
