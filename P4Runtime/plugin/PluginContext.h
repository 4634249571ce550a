// The services that the agent gives its plugins.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "P4Runtime/companion/P4RtSystemConfig.h"
#include "P4Runtime/companion/Plugins.h"
#include "platform/orrery/Database.h"
#include "platform/orrery/Directory.h"
#include "platform/vela/ReactorLoop.h"

namespace P4Runtime {

struct TableUse {
  std::string name;
  uint64_t entries = 0;
  uint64_t size = 0;  // 0: the pipeline declares none
};

// All of it outlives the plugins.
struct PluginContext {
  Vela::ReactorLoop& loop;
  Orrery::Database& stateDatabase;
  Vela::Ptr<Orrery::Directory> pluginConfigDir;
  Vela::Ptr<Orrery::Directory> pluginStatusDir;
  Vela::Ptr<Orrery::Directory> pluginDataDir;  // the plugins themselves, by name
  Vela::Ptr<const AllPluginConfig> allPluginConfig;
  Vela::Ptr<const P4RuntimeConfig::P4RtSystemConfig> p4RtSystemConfig;
  std::function<std::vector<TableUse>()> tableUse;  // of the running pipeline, by name
};

}  // namespace P4Runtime
