// The switch's interfaces, as the operating system publishes and configures them.
#pragma once

#include <cstdint>
#include <string>

#include "platform/orrery/Directory.h"
#include "platform/vela/Entity.h"

namespace Interface {

// name() is the interface's id, which is its kernel device's name.
class IntfStatus final : public Vela::Entity {
 public:
  using Entity::Entity;
  const char* typeName() const override { return "Interface::IntfStatus"; }

  VELA_READONLY_ATTRIBUTE(bool, adminUp, false)
  VELA_READONLY_ATTRIBUTE(bool, operUp, false)
  VELA_READONLY_ATTRIBUTE(uint32_t, mtu, 0)
  VELA_READONLY_ATTRIBUTE(std::string, mac, "")
  // Why its configuration could not be applied; "": it was applied, or there is no configuration.
  VELA_READONLY_ATTRIBUTE(std::string, trouble, "")
};

// An operator's configuration of an Ethernet port: "interface/config/eth/phy/all/NAME".
class EthPhyIntfConfig final : public Vela::Entity {
 public:
  using Entity::Entity;
  const char* typeName() const override { return "Interface::EthPhyIntfConfig"; }

  VELA_ATTRIBUTE(bool, enabled, true)  // bring it up, or take it down
  VELA_ATTRIBUTE(uint32_t, mtu, 0)     // 0: as it is
};

// Directories by interface id, at "interface/status/all", "interface/status/local",
// "interface/status/eth/phy/all" and "interface/config/eth/phy/all". Call with the lock held.
#define KORVEL_INTERFACE_DIRECTORY(Class)                                  \
  class Class final : public Orrery::Directory {                           \
   public:                                                                 \
    explicit Class(std::string name) : Directory(std::move(name)) {}       \
    const char* typeName() const override { return "Interface::" #Class; } \
  };
KORVEL_INTERFACE_DIRECTORY(AllIntfStatusDir)  // every interface but the CPU's and loopback
KORVEL_INTERFACE_DIRECTORY(
    AllIntfStatusLocalDir)  // every interface of this network namespace: the same
KORVEL_INTERFACE_DIRECTORY(AllEthPhyIntfStatusDir)
#undef KORVEL_INTERFACE_DIRECTORY

class AllEthPhyIntfConfigDir final : public Orrery::Directory {
 public:
  explicit AllEthPhyIntfConfigDir(std::string name) : Directory(std::move(name)) {}
  const char* typeName() const override { return "Interface::AllEthPhyIntfConfigDir"; }
  // An EthPhyIntfConfig for any name that a device may have, also of one that is not there yet;
  // BadValue for others.
  Vela::Ptr<Vela::Entity> makeEntity(const std::string& name) const override;
};

}  // namespace Interface
