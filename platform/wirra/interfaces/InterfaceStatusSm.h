// Publishes the kernel's devices as the switch's interfaces, and configures them as wanted.
#pragma once

#include <memory>
#include <string>

#include "platform/wirra/devices/InterfaceOperations.h"
#include "platform/wirra/devices/KernelNetInterface.h"
#include "platform/wirra/interfaces/InterfaceStatus.h"

namespace Interface {

// Where the operating system has its interfaces.
struct Directories {
  Vela::Ptr<AllIntfStatusDir> all;
  Vela::Ptr<AllIntfStatusLocalDir> local;
  Vela::Ptr<AllEthPhyIntfStatusDir> ethPhy;
  Vela::Ptr<AllEthPhyIntfConfigDir> ethPhyConfig;
};

// An interface stands as one entity in each directory it belongs to. A configuration entry is
// applied when it is made or changed, and when its device comes; a device without an entry is left
// as it is. Call with the activity lock held.
class InterfaceStatusSm final {
 public:
  // `cpuDevice` is no interface of the switch: it leads to the agent.
  InterfaceStatusSm(Vela::Ptr<Wirra::KernelNetInterfaceStatus> devices, Directories directories,
                    Vela::Ptr<Wirra::InterfaceOperations> operations, std::string cpuDevice);
  ~InterfaceStatusSm();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace Interface
