// Watches how far one plugin has come with the requests to all plugins.
#pragma once

#include <string>

#include "P4Runtime/companion/Plugins.h"
#include "platform/vela/Entity.h"

namespace P4Runtime {

class P4RtSystemConfigSm;

// Runs on the reactor. The owner holds it, and outlives it.
class PluginCleanupStatusSm : public Vela::RefCounted {
 public:
  PluginCleanupStatusSm(std::string name, Vela::Ptr<const PluginStatus> pluginStatus,
                        P4RtSystemConfigSm& owner);

  const std::string& name() const { return name_; }
  const Vela::Ptr<const PluginStatus>& pluginStatus() const { return pluginStatus_; }

  void handleCleanupStatus();
  void handleDisableStatus();

 private:
  const std::string name_;
  const Vela::Ptr<const PluginStatus> pluginStatus_;
  P4RtSystemConfigSm& owner_;
  Vela::Observation cleanupChange_;
  Vela::Observation disableChange_;
};

}  // namespace P4Runtime
