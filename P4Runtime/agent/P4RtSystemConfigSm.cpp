#include "P4Runtime/agent/P4RtSystemConfigSm.h"

#include <fmt/format.h>

#include <algorithm>
#include <cassert>
#include <utility>

#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("P4RtSystemConfigSm");

}  // namespace

P4RtSystemConfigSm::P4RtSystemConfigSm(
    Vela::Ptr<AgentConfig> agentConfig,
    Vela::Ptr<const P4RuntimeConfig::P4RtSystemConfig> p4RtSystemConfig,
    Vela::Ptr<P4RuntimeConfig::P4RtSystemStatus> p4RtSystemStatus,
    Vela::Ptr<AllPluginConfig> allPluginConfig, Vela::Ptr<const Orrery::Directory> pluginConfigDir,
    Vela::Ptr<const Orrery::Directory> pluginStatusDir, Vela::Ptr<P4TableInfo> p4TableInfo,
    Vela::Ptr<TableImpl> tableImpl)
    : Entity("p4RtSystemConfigSm"),
      agentConfig_(std::move(agentConfig)),
      p4RtSystemConfig_(std::move(p4RtSystemConfig)),
      p4RtSystemStatus_(std::move(p4RtSystemStatus)),
      allPluginConfig_(std::move(allPluginConfig)),
      pluginConfigDir_(std::move(pluginConfigDir)),
      pluginStatusDir_(std::move(pluginStatusDir)),
      p4TableInfo_(std::move(p4TableInfo)),
      tableImpl_(std::move(tableImpl)) {
  enabledChange_ = p4RtSystemConfig_->enabledAttribute().observe([this] { handleEnabled(); });
  if (p4TableInfo_) {
    cleanupChange_ = p4TableInfo_->cleanupResponseIdAttribute().observe(
        [this] { handleTableInfoCleanupDone(); });
  }
  pluginsChange_ = pluginStatusDir_->entityCollection().observeKeys(
      [this](const std::string& name) { handlePluginStatus(name); });
  handleInitialized();
}

P4RtSystemConfigSm::~P4RtSystemConfigSm() = default;

Vela::Ptr<P4RtSystemConfigSm> p4RtSystemConfigSmFactory(
    Vela::Ptr<AgentConfig> agentConfig,
    Vela::Ptr<const P4RuntimeConfig::P4RtSystemConfig> p4RtSystemConfig,
    Vela::Ptr<P4RuntimeConfig::P4RtSystemStatus> p4RtSystemStatus,
    Vela::Ptr<AllPluginConfig> allPluginConfig, Vela::Ptr<const Orrery::Directory> pluginConfigDir,
    Vela::Ptr<const Orrery::Directory> pluginStatusDir, Vela::Ptr<P4TableInfo> p4TableInfo,
    Vela::Ptr<TableImpl> tableImpl) {
  return Vela::make<P4RtSystemConfigSm>(std::move(agentConfig), std::move(p4RtSystemConfig),
                                        std::move(p4RtSystemStatus), std::move(allPluginConfig),
                                        std::move(pluginConfigDir), std::move(pluginStatusDir),
                                        std::move(p4TableInfo), std::move(tableImpl));
}

void P4RtSystemConfigSm::handleInitialized() {
  SCRIVEL_TRACE(1, "handleInitialized");
  handlePluginStatus();
  handleEnabled();
}

void P4RtSystemConfigSm::handleEnabled() {
  SCRIVEL_TRACE(1, "handleEnabled", " enabled ", p4RtSystemConfig_->enabled());
  if (p4RtSystemConfig_->enabled()) {
    doEnablePlugins();
    return;
  }
  doRequestTableInfoCleanup();
  SCRIVEL_TRACE(1, "handleEnabled", " cleaning-up cache");
  tableImpl_->cleanupCache();
}

// Plugins that were asked to disable themselves start again on their own. A clean-up of the table
// information that is under way is completed first.
void P4RtSystemConfigSm::doEnablePlugins() {
  SCRIVEL_TRACE(1, "doEnablePlugins");
  if (step_ == Step::pluginDisable) stepIs(Step::none);
  tableImpl_->mountCache();
  p4RtSystemStatus_->enabledIs(true);
  doTellWhatItWaitsFor();
}

void P4RtSystemConfigSm::doRequestTableInfoCleanup() {
  if (!p4TableInfo_) {
    SCRIVEL_TRACE(1, "doRequestTableInfoCleanup", " not cleaning-up p4TableInfo");
    doCleanupPlugins();
    return;
  }
  SCRIVEL_TRACE(1, "doRequestTableInfoCleanup", " cleanupRequestId ",
                p4TableInfo_->cleanupRequestId(), " cleanupResponseId ",
                p4TableInfo_->cleanupResponseId());
  stepIs(Step::tableInfoCleanup);
  p4TableInfo_->cleanupRequestIdInc(1);
}

void P4RtSystemConfigSm::handleTableInfoCleanupDone() {
  SCRIVEL_TRACE(1, "handleTableInfoCleanupDone", " request ", p4TableInfo_->cleanupRequestId(),
                " response ", p4TableInfo_->cleanupResponseId());
  if (p4TableInfo_->cleanupRequestId() != p4TableInfo_->cleanupResponseId()) return;
  doCleanupPlugins();
}

void P4RtSystemConfigSm::doCleanupPlugins() {
  const bool configEnabled = p4RtSystemConfig_->enabled();
  const bool statusEnabled = p4RtSystemStatus_->enabled();
  SCRIVEL_TRACE(1, "doCleanupPlugins", " configEnabled ", configEnabled, " statusEnabled ",
                statusEnabled);
  if (!configEnabled && !statusEnabled) {
    stepIs(Step::none);  // nothing was enabled
    return;
  }
  // The step first: a plugin may complete the request before it returns.
  step_ = configEnabled ? Step::pluginCleanup : Step::pluginDisable;
  if (configEnabled) {
    allPluginConfig_->cleanupRequestIdInc(1);
  } else {
    allPluginConfig_->disableRequestIdInc(1);
  }
  // Without plugins nothing completes the request.
  maybeFinishPluginCleanup();
  maybeFinishPluginDisable();
  doTellWhatItWaitsFor();
}

void P4RtSystemConfigSm::handlePluginCleanupStatus(const std::string& name) {
  SCRIVEL_TRACE(1, "handlePluginCleanupStatus", " ", name);
  maybeFinishPluginCleanup();
  doTellWhatItWaitsFor();
}

void P4RtSystemConfigSm::handlePluginDisableStatus(const std::string& name) {
  SCRIVEL_TRACE(1, "handlePluginDisableStatus", " ", name);
  maybeFinishPluginDisable();
  doTellWhatItWaitsFor();
}

void P4RtSystemConfigSm::maybeFinishPluginCleanup() {
  if (step_ != Step::pluginCleanup) return;
  if (!allPluginsHaveCompleted(&PluginStatus::cleanupRequestId,
                               allPluginConfig_->cleanupRequestId())) {
    return;  // handlePluginCleanupStatus() asks again
  }
  stepIs(Step::none);
  p4RtSystemStatus_->enabledIs(true);
}

void P4RtSystemConfigSm::maybeFinishPluginDisable() {
  if (step_ != Step::pluginDisable) return;  // a late response, after the request was taken back
  if (!allPluginsHaveCompleted(&PluginStatus::disableRequestId,
                               allPluginConfig_->disableRequestId())) {
    return;  // handlePluginDisableStatus() asks again
  }
  stepIs(Step::none);
  p4RtSystemStatus_->enabledIs(false);
  agentConfig_->exitRequestedIs(true);
}

bool P4RtSystemConfigSm::allPluginsHaveCompleted(CompletedId completedId,
                                                 uint32_t requestId) const {
  for (const auto& [name, entity] : pluginStatusDir_->entityCollection().values()) {
    const auto* pluginStatus = dynamic_cast<const PluginStatus*>(entity.get());
    assert(pluginStatus);
    const uint32_t completed = (pluginStatus->*completedId)();
    if (completed == requestId) continue;
    SCRIVEL_TRACE(1, "allPluginsHaveCompleted", " configRequestId ", requestId, " ", name,
                  " statusRequestId ", completed);
    return false;
  }
  SCRIVEL_TRACE(1, "allPluginsHaveCompleted", " all plugins have cleaned up");
  return true;
}

void P4RtSystemConfigSm::handlePluginStatus(const std::string& name) {
  const auto* pluginStatus =
      dynamic_cast<const PluginStatus*>(pluginStatusDir_->entity(name).get());
  if (pluginStatus) {
    SCRIVEL_TRACE(1, "handlePluginStatus", " Handle new plugin", name);
    pluginStatusSmIs(name, Vela::make<PluginCleanupStatusSm>(
                               name, Vela::Ptr<const PluginStatus>(pluginStatus), *this));
  } else {
    SCRIVEL_TRACE(1, "handlePluginStatus", "Delete plugin", name);
    pluginStatusSmDel(name);
  }
  // The removed or replaced plugin may have been the last one to wait for.
  maybeFinishPluginCleanup();
  maybeFinishPluginDisable();
  doTellWhatItWaitsFor();
}

void P4RtSystemConfigSm::handlePluginStatus() {
  SCRIVEL_TRACE(1, "handlePluginStatus");
  for (const std::string& name : pluginStatusDir_->entityNames()) handlePluginStatus(name);
}

void P4RtSystemConfigSm::stepIs(Step step) {
  step_ = step;
  doTellWhatItWaitsFor();
}

std::string P4RtSystemConfigSm::pluginsThatHaveNot(CompletedId completedId,
                                                   uint32_t requestId) const {
  std::vector<std::string> names;
  for (const auto& [name, sm] : pluginStatusSmCollection().values()) {
    if (((*sm->pluginStatus()).*completedId)() != requestId) names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return fmt::format("{} {}", names.size() == 1 ? "plugin" : "plugins", fmt::join(names, ", "));
}

void P4RtSystemConfigSm::doTellWhatItWaitsFor() {
  const char* const what = p4RtSystemConfig_->enabled() ? "enable" : "disable";
  std::string text;
  switch (step_) {
    case Step::none:
      break;
    case Step::tableInfoCleanup:
      text = fmt::format("{}: the Write in progress, before the tables are let go", what);
      break;
    case Step::pluginCleanup:
      text = fmt::format("{}: {}, to clean up", what,
                         pluginsThatHaveNot(&PluginStatus::cleanupRequestId,
                                            allPluginConfig_->cleanupRequestId()));
      break;
    case Step::pluginDisable:
      text = fmt::format("{}: {}, to stop", what,
                         pluginsThatHaveNot(&PluginStatus::disableRequestId,
                                            allPluginConfig_->disableRequestId()));
      break;
  }
  p4RtSystemStatus_->waitsForIs(text);
}

}  // namespace P4Runtime
