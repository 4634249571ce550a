// The agent process object: mounts its entities of the state database, builds the agent's parts in
// their order and wires them.
#pragma once

#include <memory>
#include <string>

#include "P4Runtime/agent/AgentConfigSm.h"
#include "P4Runtime/agent/AgentPackets.h"
#include "P4Runtime/agent/AgentRuntime.h"
#include "P4Runtime/agent/AgentStatus.h"
#include "P4Runtime/agent/CliSm.h"
#include "P4Runtime/agent/ElectionIds.h"
#include "P4Runtime/agent/FixedNames.h"
#include "P4Runtime/agent/KorvelPiServer.h"
#include "P4Runtime/agent/KorvelPiServerInitSm.h"
#include "P4Runtime/agent/MappedPorts.h"
#include "P4Runtime/agent/P4RtSystemConfigSm.h"
#include "P4Runtime/agent/PipelinePusher.h"
#include "P4Runtime/agent/PlaneQuestions.h"
#include "P4Runtime/agent/PolicyFile.h"
#include "P4Runtime/agent/PortMappingDirSm.h"
#include "P4Runtime/agent/VrfIdCollection.h"
#include "P4Runtime/companion/BatchStatus.h"
#include "P4Runtime/companion/BridgingConfig.h"
#include "P4Runtime/companion/Cli.h"
#include "P4Runtime/companion/HwStatusDir.h"
#include "P4Runtime/companion/Plugins.h"
#include "P4Runtime/companion/PortMapping.h"
#include "P4Runtime/journal/WriteJournal.h"
#include "P4Runtime/monitoring/Monitoring.h"
#include "P4Runtime/packet/P4RuntimeCpuPktSm.h"
#include "P4Runtime/pi/PiContext.h"
#include "P4Runtime/pipeline/P4TableInfoSm.h"
#include "P4Runtime/plugin/PluginLoader.h"
#include "P4Runtime/table/failures/DerivedFailures.h"
#include "platform/lattice/Database.h"
#include "platform/orrery/MountGroup.h"
#include "platform/pollen/QueryConfigSm.h"
#include "platform/pollen/TypeService.h"
#include "platform/vela/Descriptors.h"
#include "platform/vela/Entity.h"
#include "platform/vela/Timer.h"
#include "platform/wirra/devices/KernelNetInterface.h"
#include "platform/wirra/interfaces/InterfaceStatus.h"

namespace P4Runtime {

// Threads: the reactor, with the activity lock held. One a process.
// Errors: when mounts fail, it says why on standard error and ends the process. Bad limits of the
// server, or a policy that cannot be in force, end the start likewise; the status shows other
// trouble.
// Lifetime: lives as long as the process, and owns all parts that it builds.
class Agent : public Vela::Entity {
 public:
  Agent(std::string name, AgentRuntime runtime);
  ~Agent() override;
  const char* typeName() const override { return "P4Runtime::Agent"; }

  VELA_READONLY_ATTRIBUTE(Vela::Ptr<KorvelPiServer>, piServer, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<KorvelPiServerInitSm>, piServerInitSm, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<P4TableInfo>, p4TableInfo, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<P4TableInfoSm>, p4TableInfoSm, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<VrfIdCollection>, vrfIdCollection, nullptr)
  VELA_READONLY_ATTRIBUTE(P4ControllerPktMetadata::Ptr, p4ControllerPktMetadata, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<Pollen::QueryConfigDir>, queryConfigDir, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<Pollen::QueryStatusDir>, queryStatusDir, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<Pollen::QueryConfigSm>, queryConfigSm, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<Pollen::TypeConfigDir>, typeConfigDir, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<Pollen::TypeStatusDir>, typeStatusDir, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<const P4RuntimeConfig::P4RtSystemConfig>, p4RtSystemConfig,
                          nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<P4RuntimeConfig::P4RtSystemStatus>, p4RtSystemStatus, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<const P4RuntimeConfig::PortMappingConfigDir>,
                          p4RtPortMappingConfigDir, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<P4RuntimeConfig::PortMappingStatus>, p4RtPortMappingStatus,
                          nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<PortMappingDirSm>, p4RtPortMappingDirSm, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<Orrery::Directory>, pluginConfigDir, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<Orrery::Directory>, pluginStatusDir, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<Orrery::Directory>, pluginDataDir, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<AllPluginConfig>, allPluginConfig, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<PluginLoader>, context, nullptr)  // of the plugins
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<P4RtSystemConfigSm>, p4RtSystemConfigSm, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<CliConfigDir>, cliConfigDir, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<CliStatusDir>, cliStatusDir, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<CliSm>, cliSm, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<const Bridging::Config>, bridgingConfig, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<BatchStatus>, batchStatus, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<P4HandleMgr>, p4HandleMgr, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<TableImpl>, tableImpl, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<AgentConfig>, agentConfig, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<AgentConfigSm>, agentConfigSm, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<const Interface::AllIntfStatusDir>, allIntfStatusDir, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<const Interface::AllIntfStatusLocalDir>, allIntfStatusLocalDir,
                          nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<const Interface::AllEthPhyIntfStatusDir>, ethPhyIntfStatusDir,
                          nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<const Interface::AllEthPhyIntfConfigDir>, ethPhyIntfConfigDir,
                          nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<const Wirra::KernelNetInterfaceStatus>,
                          kernelNetInterfaceStatus, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<const Wirra::KernelNetInterfaceStatus>, kernelNetInterfaceInfo,
                          nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<ControllerInterface>, controllerInterface, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<ControllerTxPktConfig>, controllerTxPktConfig, nullptr)
  VELA_READONLY_ATTRIBUTE(Vela::Ptr<CpuPktSm>, cpuPktSm, nullptr)
  VELA_READONLY_ATTRIBUTE(PiContext::Ptr, piContext, nullptr)

 public:
  // Starts tracing and declares the mounts.
  void doInit();
  // Mounts them; doMountsComplete() follows on a later turn.
  void doMount();
  void doMountsComplete(const Vela::Outcome& mounts,
                        const Vela::Ptr<Orrery::EntityManager>& entityManager);

 private:
  void doDeclareMounts();
  void doFetchMounts(const Orrery::EntityManager& manager);
  void doBuildMappings();
  void doBuildTableProgramming();
  void doBuildSystemConfig();
  void doLoadPlugins();
  std::string pluginsText() const;  // each plugin with its state
  void doBuildPipeline();
  void doAttachKernelDevices();
  void doBuildPackets();
  void doBuildServer();
  void doFollowPolicy();
  void doKeepJournal();
  void doBuildCommands();
  void doPublish();
  void doFollowReports();
  void handleNotice(const Lattice::Notice& notice);
  void handleAgentLeft(const Lattice::SubscriberInfo& agent);
  void doTellSecurity();
  void doUpdateStatus();
  void doUpdateHealth();
  void doFollowRestore();
  void doMonitor();

  AgentRuntime runtime_;
  Orrery::MountGroup mountGroup_;
  std::unique_ptr<Lattice::Database> tables_;
  Vela::Ptr<Pollen::TypeService> typeService_;
  Vela::Ptr<const HwStatusDir> hwStatusDir_;
  Vela::Ptr<const P4RuntimeConfig::SecurityConfig> securityConfig_;
  SecurityLog securityLog_;
  Vela::Ptr<const P4RuntimeConfig::TranslationConfigDir> translationConfigDir_;
  Vela::Ptr<P4RuntimeConfig::TranslationStatus> translationStatus_;
  Vela::Ptr<FixedNames> fixedNames_;
  Vela::Ptr<PolicyFile> policyFile_;
  Vela::Ptr<AgentStatus> status_;
  Vela::UniqueFd notifyEvent_;
  std::unique_ptr<DerivedFailures> derivedFailures_;
  std::unique_ptr<AgentPackets> packets_;
  std::unique_ptr<ElectionIds> electionIds_;
  std::unique_ptr<PushedFiles> pushedFiles_;
  std::unique_ptr<PlaneQuestions> planeQuestions_;
  Vela::Ptr<PipelinePusher> pipelinePusher_;
  std::unique_ptr<MappedPorts> mappedPorts_;
  Vela::Ptr<const JournalConfig> journalConfig_;
  std::unique_ptr<WriteJournal> journal_;
  Vela::Ptr<const MonitoringConfig> monitoringConfig_;
  std::unique_ptr<Monitoring> monitoring_;
  std::unique_ptr<Vela::Timer> statusTimer_;
  std::unique_ptr<Vela::Timer> progressTimer_;  // runs while entries are restored
  std::vector<Vela::Observation> changes_;
};

Vela::Ptr<Agent> agentFactory(const std::string& name, const AgentRuntime& runtime);

}  // namespace P4Runtime

// For the launcher, which finds it by this name in the library: registers the entity types that the
// configuration file may name, makes an agent and starts it. It lives as long as the process.
extern "C" void korvelAgentStart(const char* name, const P4Runtime::AgentRuntime* runtime);
extern "C" void korvelAgentRegisterTypes();
