// One plugin of the agent's: started while the agent is enabled, given the requests to all plugins,
// stopped by name when it fails.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "P4Runtime/companion/Plugins.h"
#include "P4Runtime/plugin/PluginContext.h"
#include "P4Runtime/plugin/PluginHost.h"
#include "P4Runtime/plugin/PluginLibrary.h"
#include "platform/vela/Entity.h"

namespace P4Runtime {

// Runs on the reactor. Its status is in the directory from its construction on, so that no disable
// misses it. A plugin that does not run has nothing to clean up: its status completes each request
// at once.
class Plugin final : public Vela::Entity {
 public:
  // Starts it if the agent is enabled.
  Plugin(const std::string& name, PluginLibrary library, const PluginContext& context);
  // Of a library that cannot be used: the object exists for its status.
  Plugin(const std::string& name, const std::string& path, const std::string& whyNot,
         const PluginContext& context);
  ~Plugin() override;
  const char* typeName() const override { return "P4Runtime::Plugin"; }

  VELA_READONLY_ATTRIBUTE(bool, running, false)
  VELA_READONLY_ATTRIBUTE(uint32_t, starts, 0)
  VELA_READONLY_ATTRIBUTE(uint64_t, refusedCalls, 0)  // of the host's functions

 public:
  const Vela::Ptr<PluginStatus>& status() const { return status_; }

  void handleEnabled();
  void handleCleanupRequest();
  void handleDisableRequest();
  void handleSettings();
  void handleConfig();  // its configuration came, went or is another one now

 private:
  Plugin(const std::string& name, const std::string& path, const PluginContext& context);
  void handleInitialized();
  bool maybeStart();
  void doStart();
  void doStop();
  void doFail(const std::string& why);
  // Runs code of the plugin. False when an exception left the code; the plugin is stopped then.
  bool runGuarded(const char* what, const std::function<void()>& code);
  void stateIs(const std::string& state);
  void doAnswerRequests();
  int cleanupDone(uint32_t id);  // both return as the host's functions do
  int disableDone(uint32_t id);
  std::string settings() const;

  const PluginContext context_;
  const std::string path_;
  const Vela::Ptr<PluginStatus> status_;
  std::optional<PluginLibrary> library_;  // nothing: it cannot be used
  PluginHost* host_ = nullptr;
  void* instance_ = nullptr;
  bool askedToDisable_ = false;  // since it was started
  Vela::Ptr<PluginConfig> config_;
  Vela::Observation enabledChange_;
  Vela::Observation cleanupChange_;
  Vela::Observation disableChange_;
  Vela::Observation configChange_;
  Vela::Observation settingsChange_;
};

}  // namespace P4Runtime
