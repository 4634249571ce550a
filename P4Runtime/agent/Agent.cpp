#include "P4Runtime/agent/Agent.h"

#include <fmt/format.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdlib>
#include <utility>

#include "P4Runtime/pi/P4RuntimeException.h"
#include "P4Runtime/pipeline/ParsingStatus.h"
#include "P4Runtime/table/EntryFailures.h"
#include "P4Runtime/table/TableImpl.h"
#include "PI/frontends/proto/device_mgr.h"
#include "platform/orrery/EntityTypes.h"
#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("P4RuntimeAgent");

using P4RuntimeConfig::P4RtSystemConfig;
using P4RuntimeConfig::P4RtSystemStatus;

struct MountDeclaration {
  const char* path;
  const char* type;
  const char* mode;
};

constexpr MountDeclaration mounts[] = {
    {"p4runtime/config/system", "P4RuntimeConfig::P4RtSystemConfig", "r"},
    {"p4runtime/status/system", "P4RuntimeConfig::P4RtSystemStatus", "wc"},
    {"lattice/config/query/p4runtime", "Pollen::QueryConfigDir", "wc"},
    {"lattice/status/query/p4runtime", "Pollen::QueryStatusDir", "wc"},
    {"lattice/config/type/p4runtime", "Pollen::TypeConfigDir", "wc"},
    {"lattice/status/type/p4runtime", "Pollen::TypeStatusDir", "wc"},
    {"p4runtime/config/agent", "P4Runtime::AgentConfig", "wc"},
};

constexpr std::chrono::milliseconds statusPeriod(500);

std::string permissionText(uint32_t level) {
  static const char* const texts[] = {"neither reads nor writes", "reads only", "reads and writes"};
  return level <= writesAllowed ? texts[level] : std::to_string(level);
}

}  // namespace

Agent::Agent(std::string name, AgentRuntime runtime)
    : Entity(std::move(name)),
      runtime_(std::move(runtime)),
      mountGroup_(runtime_.stateDatabase, runtime_.loop) {}

Agent::~Agent() = default;

Vela::Ptr<Agent> agentFactory(const std::string& name, const AgentRuntime& runtime) {
  return Vela::make<Agent>(name, runtime);
}

void Agent::doInit() {
  if (!std::getenv("SCRIVEL_DISABLE")) {
    const char* directory = std::getenv("SCRIVELDIR");
    Scrivel::Options options;
    options.filePrefix = name();
    if (!directory) options.filePrefix += "-%d.scv";
    options.directory = directory ? directory : runtime_.stateDirectory;
    const std::string trouble = Scrivel::initialize(options);
    if (!trouble.empty()) fmt::print(stderr, "korvel: no traces: {}\n", trouble);
    SCRIVEL_TRACE(0, "scvPrefix is: ", options.filePrefix);
  }
  for (const MountDeclaration& mount : mounts) {
    mountGroup_.mountIs(mount.path, mount.type, mount.mode);
  }
}

void Agent::doMount() {
  mountGroup_.completeIs([this](const auto& status, const auto& entityManager) {
    doMountsComplete(status, entityManager);
  });
}

void Agent::doMountsComplete(const Orrery::MountStatus& status,
                             const Vela::Ptr<Orrery::EntityManager>& entityManager) {
  if (!status.ok()) {
    SCRIVEL_TRACE(0, name(), " Mounts failed, exiting\n");
    fmt::print(stderr, "{} Mounts failed, exiting: {}\n", name(), status.reason);
    sleep(1);
    runtime_.exit(0);
  }
  doFetchMounts(*entityManager);
  doBuildTableProgramming();
  doBuildPipeline();
  doBuildServer();
  doPublish();
  if (p4RtSystemConfig()->enabled()) p4RtSystemStatus()->enabledIs(true);
}

void Agent::doFetchMounts(const Orrery::EntityManager& entityManager) {
  p4RtSystemConfigIs(entityManager.entity<const P4RtSystemConfig>("p4runtime/config/system"));
  p4RtSystemStatusIs(entityManager.entity<P4RtSystemStatus>("p4runtime/status/system"));
  tables_ = Lattice::Database::create(runtime_.loop, runtime_.store,
                                      {.doorbellPath = runtime_.stateDirectory + "/doorbell.sock"});
  typeConfigDirIs(entityManager.entity<Pollen::TypeConfigDir>("lattice/config/type/p4runtime"));
  typeStatusDirIs(entityManager.entity<Pollen::TypeStatusDir>("lattice/status/type/p4runtime"));
  queryConfigDirIs(entityManager.entity<Pollen::QueryConfigDir>("lattice/config/query/p4runtime"));
  queryStatusDirIs(entityManager.entity<Pollen::QueryStatusDir>("lattice/status/query/p4runtime"));
  agentConfigIs(entityManager.entity<AgentConfig>("p4runtime/config/agent"));
}

void Agent::doBuildTableProgramming() {
  piContextIs(piContextFactory());
  piContext()->p4RtSystemStatusIs(p4RtSystemStatus());
  piContext()->hwStatusDirIs(Vela::make<HwStatusDir>("hwStatus", runtime_.stateDirectory));
  ThePiContextIs(piContext());
  p4HandleMgrIs(Vela::make<P4HandleMgr>());
  piContext()->p4HandleMgrIs(p4HandleMgr());
  batchStatusIs(Vela::make<BatchStatus>("batchStatus", tables_.get()));
  batchStatus()->notifyFdIs(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  piContext()->batchStatusIs(batchStatus());
  agentConfigSmIs(Vela::make<AgentConfigSm>(runtime_, agentConfig()));
  p4TableInfoIs(Vela::make<P4TableInfo>("p4TableInfo", "p4runtime"));
  tableImplIs(tableImplFactory(p4TableInfo(), p4HandleMgr(), tables_.get()));
  piContext()->tableImplIs(tableImpl());
  tableImpl()->initializedIs(true);
  doFollowReports();
}

void Agent::doFollowReports() {
  const auto followTimeout = [this] {
    batchStatus()->batchTimeoutIs(agentConfig()->batchTimeout());
  };
  const auto followSizeCheck = [this] {
    tableImpl()->tableSizeCheckEnabledIs(agentConfig()->tableSizeCheckEnabled());
  };
  changes_.push_back(agentConfig()->batchTimeoutAttribute().observe(followTimeout));
  changes_.push_back(agentConfig()->tableSizeCheckEnabledAttribute().observe(followSizeCheck));
  followTimeout();
  followSizeCheck();
  batchStatus()->rollbackHandlerIs(
      [this](EntryHandle handle) { tableImpl()->updateCachedEntryState(handle, true); });
  batchStatus()->strayReportHandlerIs(
      [this](const Lattice::Report& report) { tableImpl()->handleStrayReport(report); });
  tables_->observerIs({
      .reports = [this](auto reports) { batchStatus()->reportsAre(reports); },
      .inStep =
          [this](uint64_t sequence) {
            batchStatus()->inStepIs(sequence);
            tableImpl()->handleInStep(sequence);
          },
  });
}

void Agent::doBuildPipeline() {
  typeService_ = Vela::make<Pollen::TypeService>(runtime_.loop, typeConfigDir(), typeStatusDir());
  p4ControllerPktMetadataIs(p4ControllerPktMetadataFactory());
  p4TableInfoSmIs(p4TableInfoSmFactory(
      p4TableInfo(), p4ControllerPktMetadata(), p4RtSystemConfig(),
      {typeConfigDir(), typeStatusDir(), queryConfigDir(), queryStatusDir(), tables_.get()},
      {agentConfig()->p4InfoJsonPath(), agentConfig()->deviceJsonPath()}));
  Pollen::QueryTables queryTables;
  queryTables.typeOf = [this](const std::string& name) { return p4TableInfo()->typeOfTable(name); };
  queryTables.outputTableIs = [this](const std::string& path, const std::string& type) {
    p4TableInfoSm()->queryOutputIs(path, type);
  };
  queryConfigSmIs(Vela::make<Pollen::QueryConfigSm>(runtime_.loop, queryConfigDir(),
                                                    queryStatusDir(), queryTables));
}

void Agent::doBuildServer() {
  piServerIs(korvelPiServerFactory(runtime_.loop, p4RtSystemConfig()));
  piContext()->piServerIs(piServer());
  piServerInitSmIs(korvelPiServerInitSmFactory(p4TableInfo(), p4RtSystemConfig(),
                                               p4RtSystemStatus(), piServer(), tableImpl()));
  piServerInitSm()->batchStatusIs(batchStatus());
}

// For `korvel status`, `get` and `call`.
void Agent::doPublish() {
  Orrery::Database& database = runtime_.stateDatabase;
  status_ = Vela::make<AgentStatus>("agent");
  database.entityIs("p4runtime/status/agent", status_);
  database.entityIs("p4runtime/status/pipeline", Vela::Ptr<Vela::Entity>(TheParsingStatus()));
  database.entityIs("p4runtime/status/failures", tableImpl()->failures());
  database.entityIs("p4runtime/tableImpl", tableImpl());
  database.entityIs("p4runtime/tableInfo", p4TableInfo());
  database.entityIs("p4runtime/batchStatus", batchStatus());
  database.entityIs("p4runtime/piServer", piServer());
  const auto update = [this] { doUpdateStatus(); };
  changes_.push_back(p4RtSystemStatus()->criticalAttribute().observe(update));
  changes_.push_back(piServer()->serverReadyAttribute().observe(update));
  statusTimer_ = std::make_unique<Vela::Timer>(runtime_.loop, [this] { doUpdateStatus(); });
  statusTimer_->start(std::chrono::milliseconds(0), statusPeriod);
}

void Agent::doUpdateStatus() {
  status_->pidIs(getpid());
  status_->deviceIdIs(p4RtSystemConfig()->deviceId());
  status_->serverAddressIs(piServer()->serverAddressPortStr());
  status_->serverReadyIs(piServer()->serverReady());
  status_->pipelineFileIs(p4RtSystemConfig()->forwardingPipelineConfigFilePath());
  status_->pipelineStateIs(enumToText(p4TableInfo()->tableInfoState()));
  status_->permissionLevelIs(
      permissionText(pi::fe::proto::DeviceMgr::get_operation_permission_level()));
  status_->tablesIs(p4TableInfo()->tableFillText());
  std::string subscribers;
  for (const Lattice::SubscriberInfo& subscriber : tables_->subscribers()) {
    subscribers += fmt::format("{}{} (pid {}): in step up to change {}, {} reports{}",
                               subscribers.empty() ? "" : "\n", subscriber.name, subscriber.pid,
                               subscriber.sequence, subscriber.reports,
                               subscriber.takingSnapshot ? ", taking a snapshot" : "");
  }
  status_->subscribersIs(subscribers);
  status_->reportsAcceptedIs(batchStatus()->reportsAccepted());
  status_->reportsDroppedIs(batchStatus()->reportsDropped());
  status_->doorbellMessagesDroppedIs(tables_->droppedMessages());
  status_->failedEntriesIs(tableImpl()->failures()->failedEntries());
  status_->stateDirectoryBytesIs(runtime_.store.bytesUsed());
}

}  // namespace P4Runtime

extern "C" void korvelAgentRegisterTypes() {
  Orrery::EntityTypes& types = Orrery::TheEntityTypes();
  types.typeIs<P4RuntimeConfig::P4RtSystemConfig>("P4RuntimeConfig::P4RtSystemConfig");
  types.typeIs<P4RuntimeConfig::P4RtSystemStatus>("P4RuntimeConfig::P4RtSystemStatus");
  types.typeIs<P4Runtime::AgentConfig>("P4Runtime::AgentConfig");
  types.typeIs<Pollen::QueryConfigDir>("Pollen::QueryConfigDir");
  types.typeIs<Pollen::QueryStatusDir>("Pollen::QueryStatusDir");
  types.typeIs<Pollen::TypeConfigDir>("Pollen::TypeConfigDir");
  types.typeIs<Pollen::TypeStatusDir>("Pollen::TypeStatusDir");
}

extern "C" void korvelAgentStart(const char* name, const P4Runtime::AgentRuntime* runtime) {
  // Never released: the server's threads may outlive main().
  static auto* agent = new Vela::Ptr<P4Runtime::Agent>(P4Runtime::agentFactory(name, *runtime));
  (*agent)->doInit();
  (*agent)->doMount();
}
