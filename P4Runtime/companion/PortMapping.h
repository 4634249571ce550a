// Which interface a P4 port id means.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/orrery/Directory.h"
#include "platform/vela/Entity.h"

namespace P4RuntimeConfig {

// At "p4runtime/config/port-mapping/PORT"; name() is the P4 port id in decimal.
class PortMappingConfig final : public Vela::Entity {
 public:
  using Entity::Entity;
  const char* typeName() const override { return "P4RuntimeConfig::PortMappingConfig"; }

  VELA_ATTRIBUTE(std::string, intf, "")  // the interface's id; "": not mapped
};

// A P4 port id in decimal, without leading zeros: 0 to 4294967295. 0 is a port where it is mapped;
// in many programs controllers write it for "no port".
std::optional<uint32_t> portFromText(const std::string& text);

// At "p4runtime/config/port-mapping".
class PortMappingConfigDir final : public Orrery::Directory {
 public:
  explicit PortMappingConfigDir(std::string name) : Directory(std::move(name)) {}
  const char* typeName() const override { return "P4RuntimeConfig::PortMappingConfigDir"; }
  Vela::Ptr<Vela::Entity> makeEntity(const std::string& name) const override;
};

// At "p4runtime/status/port-mapping": the mappings in force. Read with the activity lock held.
class PortMappingStatus final : public Vela::Entity {
 public:
  using Entity::Entity;
  const char* typeName() const override { return "P4RuntimeConfig::PortMappingStatus"; }

  // Both ways of one mapping: an interface has one port at most.
  VELA_COLLECTION(uint32_t, std::string, intfOfPort)
  VELA_COLLECTION(std::string, uint32_t, portOfIntf)
  // Port id, as the configuration spells it -> why its mapping is refused.
  VELA_COLLECTION(std::string, std::string, refused)
};

}  // namespace P4RuntimeConfig
