#include "P4Runtime/agent/PluginCleanupStatusSm.h"

#include <utility>

#include "P4Runtime/agent/P4RtSystemConfigSm.h"

namespace P4Runtime {

PluginCleanupStatusSm::PluginCleanupStatusSm(std::string name,
                                             Vela::Ptr<const PluginStatus> pluginStatus,
                                             P4RtSystemConfigSm& owner)
    : name_(std::move(name)), pluginStatus_(std::move(pluginStatus)), owner_(owner) {
  cleanupChange_ =
      pluginStatus_->cleanupRequestIdAttribute().observe([this] { handleCleanupStatus(); });
  disableChange_ =
      pluginStatus_->disableRequestIdAttribute().observe([this] { handleDisableStatus(); });
}

void PluginCleanupStatusSm::handleCleanupStatus() { owner_.handlePluginCleanupStatus(name_); }
void PluginCleanupStatusSm::handleDisableStatus() { owner_.handlePluginDisableStatus(name_); }

}  // namespace P4Runtime
