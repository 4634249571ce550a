#include "P4Runtime/plugin/Plugin.h"

#include <fmt/format.h>

#include <utility>

#include "platform/scrivel/Trace.h"
#include "platform/vela/ErrorLine.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("Plugin");

}  // namespace

Plugin::Plugin(const std::string& name, const std::string& path, const PluginContext& context)
    : Entity(name), context_(context), path_(path), status_(Vela::make<PluginStatus>(name)) {
  status_->libraryIs(path);
  doAnswerRequests();  // nothing has been asked of it yet
}

Plugin::Plugin(const std::string& name, const std::string& path, const std::string& whyNot,
               const PluginContext& context)
    : Plugin(name, path, context) {
  stateIs("failed: " + whyNot);
  handleInitialized();
}

Plugin::Plugin(const std::string& name, PluginLibrary library, const PluginContext& context)
    : Plugin(name, library.path(), context) {
  library_.emplace(std::move(library));
  const char* version = library_->descriptor().version;
  status_->versionIs(version ? version : "");
  PluginHost::Owner owner;
  owner.runGuarded = [this](const char* what, const auto& code) { runGuarded(what, code); };
  owner.cleanupDone = [this](uint32_t id) { return cleanupDone(id); };
  owner.disableDone = [this](uint32_t id) { return disableDone(id); };
  host_ = &PluginHost::make(name, context_, status_, std::move(owner));
  handleInitialized();
}

Plugin::~Plugin() {
  doStop();
  if (host_) host_->retire();
}

void Plugin::handleInitialized() {
  enabledChange_ =
      context_.p4RtSystemConfig->enabledAttribute().observe([this] { handleEnabled(); });
  cleanupChange_ = context_.allPluginConfig->cleanupRequestIdAttribute().observe(
      [this] { handleCleanupRequest(); });
  disableChange_ = context_.allPluginConfig->disableRequestIdAttribute().observe(
      [this] { handleDisableRequest(); });
  configChange_ =
      context_.pluginConfigDir->entityCollection().observeKeys([this](const std::string& changed) {
        if (changed == name()) handleConfig();
      });
  handleConfig();
  context_.pluginStatusDir->entityIs(name(), status_);
  maybeStart();
}

void Plugin::handleConfig() {
  config_ = Vela::Ptr<PluginConfig>(
      dynamic_cast<PluginConfig*>(context_.pluginConfigDir->entity(name()).get()));
  settingsChange_ = config_ ? config_->settingsAttribute().observe([this] { handleSettings(); })
                            : Vela::Observation();
  if (running()) handleSettings();
}

std::string Plugin::settings() const { return config_ ? config_->settings() : std::string(); }

void Plugin::handleSettings() {
  if (!running() || !library_->descriptor().settings_changed) return;
  int answer = 0;
  const std::string text = settings();
  const bool returned = runGuarded("settings_changed", [&] {
    answer = library_->descriptor().settings_changed(instance_, text.c_str());
  });
  if (!returned) return;
  std::string state = "running";
  if (answer != 0) state += ", but refused its settings: " + host_->lastWords();
  stateIs(state);
}

// A plugin that was asked to disable itself is stopped and started again: it knows no way back.
void Plugin::handleEnabled() {
  if (!context_.p4RtSystemConfig->enabled()) return;
  if (askedToDisable_) doStop();
  maybeStart();
}

bool Plugin::maybeStart() {
  if (!library_ || running()) return false;
  if (!context_.p4RtSystemConfig->enabled()) {
    stateIs("waits until the agent is enabled");
    return false;  // handleEnabled() asks again
  }
  doStart();
  return true;
}

void Plugin::doStart() {
  SCRIVEL_TRACE(1, "doStart ", name());
  startsIs(starts() + 1);
  askedToDisable_ = false;
  instance_ = nullptr;
  host_->open();
  int answer = 0;
  const std::string text = settings();
  const bool returned = runGuarded("start", [&] {
    answer = library_->descriptor().start(host_->functions(), text.c_str(), &instance_);
  });
  if (!returned) return;
  if (answer == 0) {
    runningIs(true);
    stateIs("running");
    return;
  }
  const std::string why = host_->lastWords();
  doFail(fmt::format("start answered {}{}{}", answer, why.empty() ? "" : ": ", why));
}

void Plugin::doStop() {
  if (!running()) return;
  SCRIVEL_TRACE(1, "doStop ", name());
  runningIs(false);
  host_->close();
  stateIs("stopped");
  refusedCallsIs(host_->refusedCalls());
  if (const auto stop = library_->descriptor().stop) {
    try {
      stop(instance_);
    } catch (...) {
      Vela::tellError("plugin {}: its function stop failed", name());
    }
  }
  instance_ = nullptr;
}

void Plugin::stateIs(const std::string& state) { status_->stateIs(state); }

void Plugin::doFail(const std::string& why) {
  Vela::tellError("plugin {} ({}) is not used: {}", name(), path_, why);
  doStop();
  host_->close();
  stateIs("failed: " + why);
  doAnswerRequests();
}

bool Plugin::runGuarded(const char* what, const std::function<void()>& code) {
  std::string why;
  try {
    code();
    return true;
  } catch (const std::exception& e) {
    why = fmt::format("{} failed: {}", what, e.what());
  } catch (...) {
    why = fmt::format("{} failed with an exception", what);
  }
  doFail(why);
  return false;
}

void Plugin::handleCleanupRequest() {
  if (!running()) return doAnswerRequests();
  const uint32_t id = context_.allPluginConfig->cleanupRequestId();
  SCRIVEL_TRACE(1, "handleCleanupRequest ", name(), " ", id);
  const auto ask = library_->descriptor().cleanup_requested;
  if (!ask) return status_->cleanupRequestIdIs(id);
  runGuarded("cleanup_requested", [&] { ask(instance_, id); });
}

void Plugin::handleDisableRequest() {
  if (!running()) return doAnswerRequests();
  const uint32_t id = context_.allPluginConfig->disableRequestId();
  SCRIVEL_TRACE(1, "handleDisableRequest ", name(), " ", id);
  askedToDisable_ = true;
  const auto ask = library_->descriptor().disable_requested;
  if (!ask) return status_->disableRequestIdIs(id);
  stateIs("asked to stop");
  runGuarded("disable_requested", [&] { ask(instance_, id); });
}

void Plugin::doAnswerRequests() {
  status_->cleanupRequestIdIs(context_.allPluginConfig->cleanupRequestId());
  status_->disableRequestIdIs(context_.allPluginConfig->disableRequestId());
}

// A response to an earlier request is stored as such; a response without a request is a mistake of
// the plugin.
int Plugin::cleanupDone(uint32_t id) {
  const bool wasAsked = id <= context_.allPluginConfig->cleanupRequestId();
  if (!wasAsked || id <= status_->cleanupRequestId()) return KORVEL_BAD_ARGUMENT;
  status_->cleanupRequestIdIs(id);
  return KORVEL_OK;
}

int Plugin::disableDone(uint32_t id) {
  const bool wasAsked = id <= context_.allPluginConfig->disableRequestId();
  if (!wasAsked || id <= status_->disableRequestId()) return KORVEL_BAD_ARGUMENT;
  stateIs("disabled");
  status_->disableRequestIdIs(id);
  return KORVEL_OK;
}

}  // namespace P4Runtime
