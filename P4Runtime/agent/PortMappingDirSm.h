// Follows the port mapping's configuration and says which mappings are in force.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "P4Runtime/companion/PortMapping.h"
#include "platform/vela/Entity.h"
#include "platform/vela/Outcome.h"

namespace P4Runtime {

// Runs on the reactor. An interface has one port at most. Of several ports that name it, the port
// that has it keeps it, else the first to name it gets it. The others are refused; when that port
// goes, the next one in order follows. Ports from before this object come in the order of their
// ids. Observers of the status never find two ports on one interface.
class PortMappingDirSm : public Vela::RefCounted {
 public:
  // `cpuDevice` is no port's.
  PortMappingDirSm(Vela::Ptr<const P4RuntimeConfig::PortMappingConfigDir> configDir,
                   Vela::Ptr<P4RuntimeConfig::PortMappingStatus> status, std::string cpuDevice);

  void handlePortMapping(const std::string& name);  // came, went, or is another entity now
  void handleIntf(const std::string& name);

 private:
  struct Wish {
    Vela::Ptr<const P4RuntimeConfig::PortMappingConfig> config;
    Vela::Observation change;
    std::string intf;
    uint64_t order = 0;  // when it named that interface
  };
  struct Mappings {
    std::map<uint32_t, std::string> intfOfPort;
    std::map<std::string, uint32_t> portOfIntf;
    std::map<std::string, std::string> refused;
  };

  std::vector<const Wish*> wishesByRight() const;
  Mappings mappings() const;
  void doApply();
  void doApplyMappings(const Mappings& mappings);
  void doApplyRefusals(const Mappings& mappings);

  const Vela::Ptr<const P4RuntimeConfig::PortMappingConfigDir> configDir_;
  const Vela::Ptr<P4RuntimeConfig::PortMappingStatus> status_;
  const std::string cpuDevice_;
  std::map<std::string, Wish> wishes_;  // by port id as text
  uint64_t lastOrder_ = 0;
  Vela::Observation configsChange_;
};

// Whether an interface may have that name, and be a port's while `cpuDevice` is the CPU's.
Vela::Outcome checkIntfName(const std::string& intf, const std::string& cpuDevice);
// The refusal of other ports while `port` has the interface.
std::string intfHeldBy(const std::string& intf, uint32_t port);

}  // namespace P4Runtime
