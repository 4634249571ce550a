// Follows the switch that enables the agent: the clean-up before the agent is disabled, step
// by step, and an enabling meanwhile.
#pragma once

#include <cstdint>
#include <string>

#include "P4Runtime/agent/PluginCleanupStatusSm.h"
#include "P4Runtime/companion/P4RtSystemConfig.h"
#include "P4Runtime/companion/Plugins.h"
#include "P4Runtime/pipeline/P4TableInfo.h"
#include "P4Runtime/table/TableImpl.h"
#include "platform/orrery/Directory.h"
#include "platform/vela/Entity.h"

namespace P4Runtime {

// Runs on the reactor, with the activity lock held. Nothing throws; a status entity of another type
// than its plugin's is an assertion. Shares all that it is given. A disable has two steps: the
// table information lets the pipeline go, then every plugin disables itself; the agent's exit is
// requested after that. Each step is a request with a number, and is complete when the response has
// that number. Enabled again during the first step, the plugins are asked to clean up instead;
// during the second, the request is taken back. There is no time-out: a plugin that never responds
// keeps the agent alive, and the status names that plugin.
class P4RtSystemConfigSm : public Vela::Entity {
 public:
  // `p4TableInfo` may be null: there is nothing to clean up then.
  P4RtSystemConfigSm(Vela::Ptr<AgentConfig> agentConfig,
                     Vela::Ptr<const P4RuntimeConfig::P4RtSystemConfig> p4RtSystemConfig,
                     Vela::Ptr<P4RuntimeConfig::P4RtSystemStatus> p4RtSystemStatus,
                     Vela::Ptr<AllPluginConfig> allPluginConfig,
                     Vela::Ptr<const Orrery::Directory> pluginConfigDir,
                     Vela::Ptr<const Orrery::Directory> pluginStatusDir,
                     Vela::Ptr<P4TableInfo> p4TableInfo, Vela::Ptr<TableImpl> tableImpl);
  ~P4RtSystemConfigSm() override;
  const char* typeName() const override { return "P4Runtime::P4RtSystemConfigSm"; }

  VELA_COLLECTION(std::string, Vela::Ptr<PluginCleanupStatusSm>, pluginStatusSm)

 public:
  void handleEnabled();
  void handleTableInfoCleanupDone();
  void handlePluginCleanupStatus(const std::string& name);
  void handlePluginDisableStatus(const std::string& name);
  void handlePluginStatus(const std::string& name);
  void handlePluginStatus();  // of every plugin there is

  void doEnablePlugins();
  void doRequestTableInfoCleanup();
  void doCleanupPlugins();

 private:
  // The request that is not complete yet.
  enum class Step { none, tableInfoCleanup, pluginCleanup, pluginDisable };
  using CompletedId = const uint32_t& (PluginStatus::*)() const;

  void handleInitialized();
  void maybeFinishPluginCleanup();
  void maybeFinishPluginDisable();
  bool allPluginsHaveCompleted(CompletedId completedId, uint32_t requestId) const;
  std::string pluginsThatHaveNot(CompletedId completedId, uint32_t requestId) const;
  void doTellWhatItWaitsFor();
  void stepIs(Step step);

  const Vela::Ptr<AgentConfig> agentConfig_;
  const Vela::Ptr<const P4RuntimeConfig::P4RtSystemConfig> p4RtSystemConfig_;
  const Vela::Ptr<P4RuntimeConfig::P4RtSystemStatus> p4RtSystemStatus_;
  const Vela::Ptr<AllPluginConfig> allPluginConfig_;
  const Vela::Ptr<const Orrery::Directory> pluginConfigDir_;
  const Vela::Ptr<const Orrery::Directory> pluginStatusDir_;
  const Vela::Ptr<P4TableInfo> p4TableInfo_;
  const Vela::Ptr<TableImpl> tableImpl_;
  Step step_ = Step::none;
  Vela::Observation enabledChange_;
  Vela::Observation cleanupChange_;
  Vela::Observation pluginsChange_;
};

Vela::Ptr<P4RtSystemConfigSm> p4RtSystemConfigSmFactory(
    Vela::Ptr<AgentConfig> agentConfig,
    Vela::Ptr<const P4RuntimeConfig::P4RtSystemConfig> p4RtSystemConfig,
    Vela::Ptr<P4RuntimeConfig::P4RtSystemStatus> p4RtSystemStatus,
    Vela::Ptr<AllPluginConfig> allPluginConfig, Vela::Ptr<const Orrery::Directory> pluginConfigDir,
    Vela::Ptr<const Orrery::Directory> pluginStatusDir, Vela::Ptr<P4TableInfo> p4TableInfo,
    Vela::Ptr<TableImpl> tableImpl);

}  // namespace P4Runtime
