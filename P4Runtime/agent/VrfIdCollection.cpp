#include "P4Runtime/agent/VrfIdCollection.h"

#include <utility>

#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("VrfIdCollection");

}  // namespace

void VrfIdCollection::kernelNetInterfaceStatusIs(
    Vela::Ptr<const Wirra::KernelNetInterfaceStatus> status) {
  status_ = std::move(status);
  deviceChanges_.clear();
  vrfIdDelAll();
  vrfNameDelAll();
  devicesChange_ = status_->entityCollection().observeKeys(
      [this](const std::string& name) { handleKernelNetInterface(name); });
  for (const std::string& name : status_->entityNames()) handleKernelNetInterface(name);
}

void VrfIdCollection::handleKernelNetInterface(const std::string& name) {
  SCRIVEL_TRACE(5, "handleKernelNetInterface", " ", name);
  const auto device = status_->device(name);
  if (!device) {
    deviceChanges_.erase(name);
    return doRename(name, 0);
  }
  deviceChanges_[name] = device->vrfTableAttribute().observe(
      [this, name, device] { doRename(name, device->vrfTable()); });
  doRename(name, device->vrfTable());
}

// Two VRFs may share a table for a moment; the number then means the later of them.
void VrfIdCollection::doRename(const std::string& name, uint32_t id) {
  const uint32_t before = vrfIdDel(name);
  if (before != 0 && vrfName(before) == name) vrfNameDel(before);
  if (id == 0) return;
  vrfIdIs(name, id);
  vrfNameIs(id, name);
}

}  // namespace P4Runtime
