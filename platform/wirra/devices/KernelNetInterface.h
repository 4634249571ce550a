// The kernel's network devices in one network namespace, as entities.
#pragma once

#include <cstdint>
#include <string>

#include "platform/orrery/Directory.h"
#include "platform/vela/Entity.h"

namespace Wirra {

// name() is the device's name. A new device of the same name (its index differs) gets a new entity.
class KernelNetInterface final : public Vela::Entity {
 public:
  using Entity::Entity;
  const char* typeName() const override { return "Wirra::KernelNetInterface"; }

  VELA_READONLY_ATTRIBUTE(uint32_t, ifIndex, 0)
  VELA_READONLY_ATTRIBUTE(bool, adminUp, false)
  VELA_READONLY_ATTRIBUTE(bool, operUp, false)    // up, and its carrier is there
  VELA_READONLY_ATTRIBUTE(uint32_t, mtu, 0)       // bytes of payload, the Ethernet header excluded
  VELA_READONLY_ATTRIBUTE(std::string, mac, "")   // "00:11:22:33:44:55"; "" for other than Ethernet
  VELA_READONLY_ATTRIBUTE(std::string, kind, "")  // "veth", "tun", "vrf", ...; "" when not known
  VELA_READONLY_ATTRIBUTE(bool, loopback, false)
  VELA_READONLY_ATTRIBUTE(uint32_t, vrfTable, 0)  // of kind "vrf": its routing table
};

// Where the state database has the devices of this process's network namespace:
// "kni/ns/NAMESPACE/status" with the name that `ip netns` has for it, else "default".
std::string kernelDevicesPath();
// The same for any namespace: with a single namespace nobody needs to know its name.
constexpr const char* defaultKernelDevicesPath = "kni/ns/default/status";

// At kernelDevicesPath() and at defaultKernelDevicesPath: the devices by name. Observe
// entityCollection() for devices that come and go, and each device's attributes. Call with the
// activity lock held.
class KernelNetInterfaceStatus final : public Orrery::Directory {
 public:
  explicit KernelNetInterfaceStatus(std::string name) : Directory(std::move(name)) {}
  const char* typeName() const override { return "Wirra::KernelNetInterfaceStatus"; }

  // Null when absent.
  Vela::Ptr<KernelNetInterface> device(const std::string& name) const;
};

}  // namespace Wirra
