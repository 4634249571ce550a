// Keeps the table of kernel devices as the kernel has them, from rtnetlink.
#pragma once

#include <memory>

#include "platform/vela/ReactorLoop.h"
#include "platform/wirra/devices/KernelNetInterface.h"

namespace Wirra {

// Fills the table before the constructor returns and follows the kernel from then on; after an
// overrun of the netlink socket it reads all devices again. Throws std::system_error when the
// kernel gives no netlink socket. Call with the activity lock held; the loop must outlive it.
class KernelNetInterfaceSm final {
 public:
  KernelNetInterfaceSm(Vela::ReactorLoop& loop, Vela::Ptr<KernelNetInterfaceStatus> status);
  ~KernelNetInterfaceSm();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace Wirra
