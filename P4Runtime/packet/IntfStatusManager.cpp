#include "P4Runtime/packet/IntfStatusManager.h"

#include <utility>

#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("IntfStatusManager");

}  // namespace

IntfStatusManager::IntfStatusManager(Vela::Ptr<const Orrery::Directory> desiredIntfDir,
                                     Vela::Ptr<const Wirra::KernelNetInterfaceStatus> kernelDevices,
                                     Vela::Ptr<Orrery::Directory> deviceIntfStatusDir)
    : Entity("intfStatusManager"),
      desiredIntfDir_(std::move(desiredIntfDir)),
      kernelDevices_(std::move(kernelDevices)),
      deviceIntfStatusDir_(std::move(deviceIntfStatusDir)) {
  const auto handle = [this](const std::string& intf) { handleIntf(intf); };
  desiredChange_ = desiredIntfDir_->entityCollection().observeKeys(handle);
  deviceChange_ = kernelDevices_->entityCollection().observeKeys(handle);
  for (const std::string& intf : desiredIntfDir_->entityNames()) handleIntf(intf);
}

void IntfStatusManager::handleIntf(const std::string& intf) {
  SCRIVEL_TRACE(5, "handleIntf", " ", intf);
  const auto device = kernelDevices_->device(intf);
  if (device && desiredIntfDir_->entityHas(intf)) {
    deviceIntfStatusDir_->entityIs(intf, device);
  } else {
    deviceIntfStatusDir_->entityDel(intf);
  }
}

}  // namespace P4Runtime
