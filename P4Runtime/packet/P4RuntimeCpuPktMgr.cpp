#include "P4Runtime/packet/P4RuntimeCpuPktMgr.h"

#include <system_error>
#include <utility>

#include "platform/scrivel/Trace.h"
#include "platform/vela/ErrorLine.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("P4RuntimeCpuPktMgr");

// Trouble that every device has, twice a second, is worth one line.
void tellOnce(const std::system_error& e) {
  static auto* told = new std::set<int>;  // guarded by the activity lock
  if (e.code() == std::errc::no_such_device || !told->insert(e.code().value()).second) return;
  const bool permission =
      e.code() == std::errc::operation_not_permitted || e.code() == std::errc::permission_denied;
  Vela::tellError("{}; {}", e.what(),
                  permission
                      ? "no packets go there: run the agent with CAP_NET_RAW and CAP_NET_ADMIN"
                      : "no packets go there until it can");
}

}  // namespace

Wirra::PacketAccessManager::Ptr openPacketAccess(Vela::ReactorLoop& loop, const std::string& device,
                                                 Wirra::PacketAccessManager::Mode mode) {
  try {
    return Vela::make<Wirra::PacketAccessManager>(loop, device, mode);
  } catch (const std::system_error& e) {
    SCRIVEL_TRACE(1, "openPacketAccess", " intf ", device, " ", e.what());
    tellOnce(e);
    return nullptr;
  }
}

P4RuntimeCpuPktMgr::P4RuntimeCpuPktMgr(Vela::ReactorLoop& loop,
                                       Vela::Ptr<const Orrery::Directory> deviceIntfStatusDir,
                                       Vela::Ptr<PamCollection> pamCollection)
    : Entity("cpuPktMgr"),
      loop_(loop),
      deviceIntfStatusDir_(std::move(deviceIntfStatusDir)),
      pamCollection_(std::move(pamCollection)) {
  deviceChange_ = deviceIntfStatusDir_->entityCollection().observeKeys(
      [this](const std::string& intf) { handleDevice(intf); });
  for (const std::string& intf : deviceIntfStatusDir_->entityNames()) handleDevice(intf);
}

void P4RuntimeCpuPktMgr::handleDevice(const std::string& intf) {
  refused_.erase(intf);
  const auto* device =
      dynamic_cast<const Wirra::KernelNetInterface*>(deviceIntfStatusDir_->entity(intf).get());
  const auto pam = pamCollection_->pam(intf);
  if (pam && device && static_cast<uint32_t>(pam->ifIndex()) == device->ifIndex()) return;
  if (pam) {
    SCRIVEL_TRACE(3, "handleDevice", " intf ", intf, " removed ");
    pamCollection_->pamDel(intf);
  }
  if (device) doOpen(intf);
}

void P4RuntimeCpuPktMgr::doOpen(const std::string& intf) {
  auto pam = openPacketAccess(loop_, intf, Wirra::PacketAccessManager::Mode::sendOnly);
  if (!pam) {
    refused_.insert(intf);
    return;
  }
  SCRIVEL_TRACE(3, "handleDevice", " intf ", intf, " added ");
  pamCollection_->pamIs(intf, std::move(pam));
}

void P4RuntimeCpuPktMgr::retry() {
  for (const std::string& intf : std::exchange(refused_, {})) {
    if (deviceIntfStatusDir_->entityHas(intf)) doOpen(intf);
  }
}

}  // namespace P4Runtime
