// The entities of the state database that the agent needs, and their paths.

#include <cstddef>

#include "P4Runtime/agent/Agent.h"
#include "P4Runtime/companion/SecurityConfig.h"
#include "P4Runtime/companion/Settings.h"
#include "platform/orrery/EntityTypes.h"
#include "platform/vela/ErrorLine.h"

namespace P4Runtime {
namespace {

using P4RuntimeConfig::P4RtSystemConfig;
using P4RuntimeConfig::P4RtSystemStatus;
using P4RuntimeConfig::PortMappingConfigDir;
using P4RuntimeConfig::PortMappingStatus;
using P4RuntimeConfig::SecurityConfig;
using P4RuntimeConfig::TranslationConfigDir;
using P4RuntimeConfig::TranslationStatus;

struct MountDeclaration {
  const char* path;
  const char* type;
  const char* mode;
  const char* localName = "";
};

constexpr const char* directory = "Orrery::Directory";

constexpr MountDeclaration mounts[] = {
    {"bridging/config", "Bridging::Config", "r"},
    {"p4runtime/config/plugin", directory, "wci"},
    {"p4runtime/config/plugin/all", "P4Runtime::AllPluginConfig", "w"},
    {"p4runtime/config/system", "P4RuntimeConfig::P4RtSystemConfig", "r"},
    {"p4runtime/status/system", "P4RuntimeConfig::P4RtSystemStatus", "w"},
    {"p4runtime/config/port-mapping", directory, "ri"},
    {"p4runtime/config/translation", directory, "ri"},
    {"p4runtime/status/plugin", directory, "wci"},
    {"p4runtime/status/port-mapping", "P4RuntimeConfig::PortMappingStatus", "w"},
    {"p4runtime/status/translation", "P4RuntimeConfig::TranslationStatus", "w"},
    {"lattice/config/query/p4runtime", "Pollen::QueryConfigDir", "wc"},
    {"lattice/status/query/p4runtime", "Pollen::QueryStatusDir", "wc"},
    {"lattice/config/type/p4runtime", "Pollen::TypeConfigDir", "wc"},
    {"lattice/status/type/p4runtime", "Pollen::TypeStatusDir", "wc"},
    {"p4runtime/config/cli", "P4Runtime::CliConfigDir", "w"},
    {"p4runtime/status/cli", "P4Runtime::CliStatusDir", "w"},
    {"openflow/kestrelhwstatusdir", directory, "r"},
    {"interface/status/all", "Interface::AllIntfStatusDir", "r", "AllIntfStatusDir"},
    {"interface/status/local", "Interface::AllIntfStatusLocalDir", "r", "AllIntfStatusLocalDir"},
    {"interface/status/eth/phy/all", "Interface::AllEthPhyIntfStatusDir", "r",
     "AllEthPhyIntfStatusDir"},
    {"interface/config/eth/phy/all", "Interface::AllEthPhyIntfConfigDir", "r",
     "AllEthPhyIntfConfigDir"},
    {"p4runtime/config/agent", "P4Runtime::AgentConfig", "wc"},
    {"p4runtime/config/journal", "P4Runtime::JournalConfig", "r"},
    {"p4runtime/config/monitoring", "P4Runtime::MonitoringConfig", "r"},
    {"p4runtime/config/security", "P4RuntimeConfig::SecurityConfig", "wc"},
};

}  // namespace

void Agent::doDeclareMounts() {
  for (const MountDeclaration& mount : mounts) {
    mountGroup_.mountIs(mount.path, mount.type, mount.mode, mount.localName);
  }
}

void Agent::doFetchMounts(const Orrery::EntityManager& manager) {
  bridgingConfigIs(manager.entity<const Bridging::Config>("bridging/config"));
  cliConfigDirIs(manager.entity<CliConfigDir>("p4runtime/config/cli"));
  cliStatusDirIs(manager.entity<CliStatusDir>("p4runtime/status/cli"));
  pluginConfigDirIs(manager.entity<Orrery::Directory>("p4runtime/config/plugin"));
  pluginStatusDirIs(manager.entity<Orrery::Directory>("p4runtime/status/plugin"));
  pluginDataDirIs(Vela::make<Orrery::Directory>("pluginData"));
  allPluginConfigIs(manager.entity<AllPluginConfig>("p4runtime/config/plugin/all"));
  p4RtSystemConfigIs(manager.entity<const P4RtSystemConfig>("p4runtime/config/system"));
  p4RtSystemStatusIs(manager.entity<P4RtSystemStatus>("p4runtime/status/system"));
  allIntfStatusDirIs(manager.entity<const Interface::AllIntfStatusDir>("AllIntfStatusDir"));
  allIntfStatusLocalDirIs(
      manager.entity<const Interface::AllIntfStatusLocalDir>("AllIntfStatusLocalDir"));
  ethPhyIntfStatusDirIs(
      manager.entity<const Interface::AllEthPhyIntfStatusDir>("AllEthPhyIntfStatusDir"));
  ethPhyIntfConfigDirIs(
      manager.entity<const Interface::AllEthPhyIntfConfigDir>("AllEthPhyIntfConfigDir"));
  tables_ = Lattice::Database::create(runtime_.loop, runtime_.store,
                                      {.doorbellPath = runtime_.stateDirectory + "/doorbell.sock"});
  if (const size_t undone = tables_->undoneAtStart(); undone > 0) {
    Vela::tellError(
        "the agent ended before the outcome of a ROLLBACK_ON_ERROR Write was known; "
        "its changes were undone: {}",
        undone);
  }
  typeConfigDirIs(manager.entity<Pollen::TypeConfigDir>("lattice/config/type/p4runtime"));
  typeStatusDirIs(manager.entity<Pollen::TypeStatusDir>("lattice/status/type/p4runtime"));
  queryConfigDirIs(manager.entity<Pollen::QueryConfigDir>("lattice/config/query/p4runtime"));
  queryStatusDirIs(manager.entity<Pollen::QueryStatusDir>("lattice/status/query/p4runtime"));
  p4RtPortMappingConfigDirIs(
      manager.entity<const PortMappingConfigDir>("p4runtime/config/port-mapping"));
  p4RtPortMappingStatusIs(manager.entity<PortMappingStatus>("p4runtime/status/port-mapping"));
  translationConfigDir_ =
      manager.entity<const TranslationConfigDir>("p4runtime/config/translation");
  translationStatus_ = manager.entity<TranslationStatus>("p4runtime/status/translation");
  hwStatusDir_ = manager.entity<const HwStatusDir>("openflow/kestrelhwstatusdir");
  agentConfigIs(manager.entity<AgentConfig>("p4runtime/config/agent"));
  journalConfig_ = manager.entity<const JournalConfig>("p4runtime/config/journal");
  monitoringConfig_ = manager.entity<const MonitoringConfig>("p4runtime/config/monitoring");
  securityConfig_ = manager.entity<const SecurityConfig>("p4runtime/config/security");
}

}  // namespace P4Runtime

extern "C" void korvelAgentRegisterTypes() {
  using namespace P4Runtime;
  Orrery::TheSettingsAre(agentSettings());
  Orrery::EntityTypes& types = Orrery::TheEntityTypes();
  types.typeIs<Bridging::Config>("Bridging::Config");
  types.typeIs<AllPluginConfig>("P4Runtime::AllPluginConfig");
  types.typeIs<PluginConfigDir>("P4Runtime::PluginConfigDir");
  types.typeIs<P4RtSystemConfig>("P4RuntimeConfig::P4RtSystemConfig");
  types.typeIs<P4RtSystemStatus>("P4RuntimeConfig::P4RtSystemStatus");
  types.typeIs<PortMappingConfigDir>("P4RuntimeConfig::PortMappingConfigDir");
  types.typeIs<PortMappingStatus>("P4RuntimeConfig::PortMappingStatus");
  types.typeIs<TranslationConfigDir>("P4RuntimeConfig::TranslationConfigDir");
  types.typeIs<TranslationStatus>("P4RuntimeConfig::TranslationStatus");
  types.typeIs<AgentConfig>("P4Runtime::AgentConfig");
  types.typeIs<JournalConfig>("P4Runtime::JournalConfig");
  types.typeIs<MonitoringConfig>("P4Runtime::MonitoringConfig");
  types.typeIs<SecurityConfig>("P4RuntimeConfig::SecurityConfig");
  types.typeIs<CliConfigDir>("P4Runtime::CliConfigDir");
  types.typeIs<CliStatusDir>("P4Runtime::CliStatusDir");
  types.typeIs<Pollen::QueryConfigDir>("Pollen::QueryConfigDir");
  types.typeIs<Pollen::QueryStatusDir>("Pollen::QueryStatusDir");
  types.typeIs<Pollen::TypeConfigDir>("Pollen::TypeConfigDir");
  types.typeIs<Pollen::TypeStatusDir>("Pollen::TypeStatusDir");
  types.typeIs<Interface::AllIntfStatusDir>("Interface::AllIntfStatusDir");
  types.typeIs<Interface::AllIntfStatusLocalDir>("Interface::AllIntfStatusLocalDir");
  types.typeIs<Interface::AllEthPhyIntfStatusDir>("Interface::AllEthPhyIntfStatusDir");
  types.typeIs<Interface::AllEthPhyIntfConfigDir>("Interface::AllEthPhyIntfConfigDir");
  types.typeIs<Wirra::KernelNetInterfaceStatus>("Wirra::KernelNetInterfaceStatus");
}
