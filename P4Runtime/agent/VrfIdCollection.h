// The VRFs of the switch by name, with their routing tables' numbers, which are their ids.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "platform/vela/Entity.h"
#include "platform/wirra/devices/KernelNetInterface.h"

namespace P4Runtime {

// Runs on the reactor. Empty until the kernel's devices are known; has the devices of the kind
// "vrf".
class VrfIdCollection : public Vela::Entity {
 public:
  using Entity::Entity;
  const char* typeName() const override { return "P4Runtime::VrfIdCollection"; }

  VELA_COLLECTION(std::string, uint32_t, vrfId)
  VELA_COLLECTION(uint32_t, std::string, vrfName)

 public:
  void kernelNetInterfaceStatusIs(Vela::Ptr<const Wirra::KernelNetInterfaceStatus> status);
  void handleKernelNetInterface(const std::string& name);

 private:
  void doRename(const std::string& name, uint32_t id);

  Vela::Ptr<const Wirra::KernelNetInterfaceStatus> status_;
  Vela::Observation devicesChange_;
  std::map<std::string, Vela::Observation> deviceChanges_;
};

}  // namespace P4Runtime
