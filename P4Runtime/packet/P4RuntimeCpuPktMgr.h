// Keeps a way to send packets for each interface that packets may go to.
#pragma once

#include <functional>
#include <set>
#include <string>

#include "platform/orrery/Directory.h"
#include "platform/vela/Entity.h"
#include "platform/vela/ReactorLoop.h"
#include "platform/wirra/devices/KernelNetInterface.h"
#include "platform/wirra/packets/PacketAccessManager.h"

namespace P4Runtime {

// "cpuPktInterfaces": packet access managers by interface. Call with the activity lock held.
class PamCollection final : public Vela::Entity {
 public:
  using Entity::Entity;
  const char* typeName() const override { return "P4Runtime::PamCollection"; }

  VELA_COLLECTION(std::string, Wirra::PacketAccessManager::Ptr, pam)
};

// One for each device in `deviceIntfStatusDir`, for sending only; another one when another device
// stands there. A device that is down keeps its own. Runs on the reactor.
class P4RuntimeCpuPktMgr final : public Vela::Entity {
 public:
  // The loop must outlive it.
  P4RuntimeCpuPktMgr(Vela::ReactorLoop& loop,
                     Vela::Ptr<const Orrery::Directory> deviceIntfStatusDir,
                     Vela::Ptr<PamCollection> pamCollection);
  const char* typeName() const override { return "P4Runtime::P4RuntimeCpuPktMgr"; }

  // Opens the devices again that the system refused (memory, descriptors, permissions).
  void retry();

 private:
  void handleDevice(const std::string& intf);
  void doOpen(const std::string& intf);

  Vela::ReactorLoop& loop_;
  const Vela::Ptr<const Orrery::Directory> deviceIntfStatusDir_;
  const Vela::Ptr<PamCollection> pamCollection_;
  std::set<std::string> refused_;
  Vela::Observation deviceChange_;
};

// Opens packet access on the device. Null when the system refuses; the first refusal for a reason
// is a line on standard error.
Wirra::PacketAccessManager::Ptr openPacketAccess(Vela::ReactorLoop& loop, const std::string& device,
                                                 Wirra::PacketAccessManager::Mode mode);

}  // namespace P4Runtime
