// Which of the wanted interfaces the kernel has, and as which device.
#pragma once

#include <string>

#include "platform/orrery/Directory.h"
#include "platform/vela/Entity.h"
#include "platform/wirra/devices/KernelNetInterface.h"

namespace P4Runtime {

// Keeps `deviceIntfStatusDir` equal to the kernel's devices of the names that stand in
// `desiredIntfDir`. A new device of the same name takes the place of the former. Runs on the
// reactor.
class IntfStatusManager final : public Vela::Entity {
 public:
  IntfStatusManager(Vela::Ptr<const Orrery::Directory> desiredIntfDir,
                    Vela::Ptr<const Wirra::KernelNetInterfaceStatus> kernelDevices,
                    Vela::Ptr<Orrery::Directory> deviceIntfStatusDir);
  const char* typeName() const override { return "P4Runtime::IntfStatusManager"; }

 private:
  void handleIntf(const std::string& intf);

  const Vela::Ptr<const Orrery::Directory> desiredIntfDir_;
  const Vela::Ptr<const Wirra::KernelNetInterfaceStatus> kernelDevices_;
  const Vela::Ptr<Orrery::Directory> deviceIntfStatusDir_;
  Vela::Observation desiredChange_;
  Vela::Observation deviceChange_;
};

}  // namespace P4Runtime
