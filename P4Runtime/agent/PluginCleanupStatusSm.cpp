#include "P4Runtime/agent/PluginCleanupStatusSm.h"

#include <utility>

#include "P4Runtime/agent/P4RtSystemConfigSm.h"
#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("PluginCleanupStatusSm");

}  // namespace

PluginCleanupStatusSm::PluginCleanupStatusSm(std::string name,
                                             Vela::Ptr<const PluginStatus> pluginStatus,
                                             P4RtSystemConfigSm& owner)
    : name_(std::move(name)), pluginStatus_(std::move(pluginStatus)), owner_(owner) {
  cleanupChange_ =
      pluginStatus_->cleanupRequestIdAttribute().observe([this] { handleCleanupStatus(); });
  disableChange_ =
      pluginStatus_->disableRequestIdAttribute().observe([this] { handleDisableStatus(); });
}

void PluginCleanupStatusSm::handleCleanupStatus() {
  SCRIVEL_TRACE(1, "handleCleanupStatus", " ", name_, " ", pluginStatus_->cleanupRequestId());
  owner_.handlePluginCleanupStatus(name_);
}

void PluginCleanupStatusSm::handleDisableStatus() {
  SCRIVEL_TRACE(1, "handleDisableStatus", " ", name_, " ", pluginStatus_->disableRequestId());
  owner_.handlePluginDisableStatus(name_);
}

}  // namespace P4Runtime
