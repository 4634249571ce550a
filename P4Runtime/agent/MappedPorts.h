// The ports that exist by the configuration.
#pragma once

#include "P4Runtime/companion/P4RtSystemConfig.h"
#include "P4Runtime/companion/PortMapping.h"
#include "P4Runtime/pi/KnownPorts.h"

namespace P4Runtime {

// With checkPorts set: the ports that are mapped to interfaces, and the CPU's; all while none is
// mapped. Without it: all.
class MappedPorts final : public KnownPorts {
 public:
  MappedPorts(Vela::Ptr<const AgentConfig> config,
              Vela::Ptr<const P4RuntimeConfig::PortMappingStatus> status)
      : config_(std::move(config)), status_(std::move(status)) {}

  bool has(uint32_t port) const override {
    if (!config_->checkPorts() || status_->intfOfPortCollection().values().empty()) return true;
    return status_->intfOfPortHas(port) || (port != 0 && port == config_->cpuPort());
  }

 private:
  const Vela::Ptr<const AgentConfig> config_;
  const Vela::Ptr<const P4RuntimeConfig::PortMappingStatus> status_;
};

}  // namespace P4Runtime
