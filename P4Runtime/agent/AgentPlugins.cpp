// The agent's enabling and disabling, and its plugins.
#include <dlfcn.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "P4Runtime/agent/Agent.h"

namespace P4Runtime {
namespace {

// Beside the agent's library, if it is there: lib/korvel/plugins, whether the library lies in lib,
// as it does when it is built, or in lib/korvel.
std::string defaultPluginDirectory() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&korvelAgentStart), &info) == 0 || !info.dli_fname) return {};
  std::error_code error;
  const auto library = std::filesystem::canonical(info.dli_fname, error);
  if (error) return {};
  const auto beside = library.parent_path();
  const auto directory = (beside.filename() == "korvel" ? beside : beside / "korvel") / "plugins";
  return std::filesystem::is_directory(directory, error) ? directory.string() : std::string();
}

std::vector<TableUse> tableUseOf(const P4TableInfo& tableInfo) {
  std::vector<TableUse> tables;
  for (const auto& [rid, interface] : tableInfo.latticeTableInterfaceCollection().values()) {
    if (!interface->ready()) continue;
    tables.push_back({interface->tableName(), interface->rowCount(), tableInfo.maxTableSize(rid)});
  }
  std::sort(tables.begin(), tables.end(),
            [](const TableUse& a, const TableUse& b) { return a.name < b.name; });
  return tables;
}

}  // namespace

void Agent::doBuildSystemConfig() {
  p4RtSystemConfigSmIs(p4RtSystemConfigSmFactory(
      agentConfig(), p4RtSystemConfig(), p4RtSystemStatus(), allPluginConfig(), pluginConfigDir(),
      pluginStatusDir(), p4TableInfo(), tableImpl()));
}

void Agent::doLoadPlugins() {
  if (std::getenv("P4RUNTIME_SKIP_PLUGINS")) return;
  contextIs(Vela::make<PluginLoader>(PluginContext{
      .loop = runtime_.loop,
      .stateDatabase = runtime_.stateDatabase,
      .pluginConfigDir = pluginConfigDir(),
      .pluginStatusDir = pluginStatusDir(),
      .pluginDataDir = pluginDataDir(),
      .allPluginConfig = allPluginConfig(),
      .p4RtSystemConfig = p4RtSystemConfig(),
      .tableUse = [this] { return tableUseOf(*p4TableInfo()); },
  }));
  const std::string& configured = agentConfig()->pluginDirectory();
  const std::string directory = configured.empty() ? defaultPluginDirectory() : configured;
  if (!directory.empty()) context()->load(directory);
  runtime_.stateDatabase.entityIs("p4runtime/plugin", pluginDataDir());
}

std::string Agent::pluginsText() const {
  std::string text;
  for (const std::string& name : pluginStatusDir()->entityNames()) {
    const auto entity = pluginStatusDir()->entity(name);
    const auto* status = dynamic_cast<const PluginStatus*>(entity.get());
    if (status) text += (text.empty() ? "" : "\n") + name + " " + status->state();
  }
  return text;
}

}  // namespace P4Runtime
