#include "cli/agent/ProvidedEntities.h"

#include <fmt/format.h>

#include <stdexcept>

#include "P4Runtime/companion/HwStatusDir.h"
#include "platform/orrery/EntityTypes.h"

namespace {

struct Provided {
  const char* path;
  const char* type;
};

constexpr Provided provided[] = {
    {"bridging/config", "Bridging::Config"},
    {"interface/config/eth/phy/all", "Interface::AllEthPhyIntfConfigDir"},
    {"interface/status/all", "Interface::AllIntfStatusDir"},
    {"interface/status/eth/phy/all", "Interface::AllEthPhyIntfStatusDir"},
    {"interface/status/local", "Interface::AllIntfStatusLocalDir"},
    {"p4runtime/config/agent", "P4Runtime::AgentConfig"},
    {"p4runtime/config/cli", "P4Runtime::CliConfigDir"},
    {"p4runtime/config/journal", "P4Runtime::JournalConfig"},
    {"p4runtime/config/monitoring", "P4Runtime::MonitoringConfig"},
    {"p4runtime/config/plugin", "P4Runtime::PluginConfigDir"},
    {"p4runtime/config/plugin/all", "P4Runtime::AllPluginConfig"},
    {"p4runtime/config/port-mapping", "P4RuntimeConfig::PortMappingConfigDir"},
    {"p4runtime/config/translation", "P4RuntimeConfig::TranslationConfigDir"},
    {"p4runtime/config/security", "P4RuntimeConfig::SecurityConfig"},
    {"p4runtime/config/system", "P4RuntimeConfig::P4RtSystemConfig"},
    {"p4runtime/status/cli", "P4Runtime::CliStatusDir"},
    {"p4runtime/status/port-mapping", "P4RuntimeConfig::PortMappingStatus"},
    {"p4runtime/status/system", "P4RuntimeConfig::P4RtSystemStatus"},
    {"p4runtime/status/translation", "P4RuntimeConfig::TranslationStatus"},
};

}  // namespace

void provideEntities(Orrery::Database& database, const std::string& stateDirectory) {
  for (const Provided& one : provided) {
    if (database.entity(one.path)) continue;
    const auto entity = Orrery::TheEntityTypes().make(one.type, one.path);
    if (!entity) {
      throw std::runtime_error(fmt::format(
          "the agent's library does not know {}; use the one that came with this command",
          one.type));
    }
    database.entityIs(one.path, entity);
  }
  const char* hwStatus = "openflow/kestrelhwstatusdir";
  database.entityIs(hwStatus, Vela::make<P4Runtime::HwStatusDir>(hwStatus, stateDirectory));
}
