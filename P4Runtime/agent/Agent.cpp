#include "P4Runtime/agent/Agent.h"

#include <fmt/format.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <utility>

#include "P4Runtime/agent/AccountLog.h"
#include "P4Runtime/agent/CliCommands.h"
#include "P4Runtime/agent/GrpcLog.h"
#include "P4Runtime/agent/ProtobufLog.h"
#include "P4Runtime/agent/ServerLimits.h"
#include "P4Runtime/agent/SettingChecks.h"
#include "P4Runtime/pi/P4RuntimeException.h"
#include "P4Runtime/pi/WriteGate.h"
#include "P4Runtime/table/TableImpl.h"
#include "P4Runtime/table/failures/EntryFailures.h"
#include "PI/int/pi_int.h"
#include "PI/pi_extensions.h"
#include "platform/scrivel/Trace.h"
#include "platform/vela/ErrorLine.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("P4RuntimeAgent");

// A forwarding agent tries ten times a second to attach, and may have to be started again.
constexpr std::chrono::milliseconds attachGrace(2000);

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
    try {
      Scrivel::initialize(options);
    } catch (const Scrivel::TraceError& e) {
      Vela::tellError("no traces: {}", e.what());
    }
    SCRIVEL_TRACE(0, "scvPrefix is: ", options.filePrefix);
  }
  takeProtobufLog();
  takeGrpcLog();
  doDeclareMounts();
}

void Agent::doMount() {
  mountGroup_.completeIs([this](const auto& mounts, const auto& entityManager) {
    doMountsComplete(mounts, entityManager);
  });
}

void Agent::doMountsComplete(const Vela::Outcome& mounts,
                             const Vela::Ptr<Orrery::EntityManager>& entityManager) {
  if (!mounts.ok()) {
    SCRIVEL_TRACE(0, name(), " Mounts failed, exiting\n");
    Vela::tellError("{} Mounts failed, exiting: {}", name(), mounts.reason());
    sleep(1);
    runtime_.exit(0);
  }
  doFetchMounts(*entityManager);
  doBuildMappings();
  doBuildTableProgramming();
  doBuildSystemConfig();
  doLoadPlugins();
  doBuildPipeline();
  doAttachKernelDevices();
  doBuildPackets();
  doBuildServer();
  doBuildCommands();
  doPublish();
}

void Agent::doBuildMappings() {
  vrfIdCollectionIs(Vela::make<VrfIdCollection>("vrfs"));
  p4RtPortMappingDirSmIs(Vela::make<PortMappingDirSm>(
      p4RtPortMappingConfigDir(), p4RtPortMappingStatus(), agentConfig()->cpuDevice().text()));
}

void Agent::doBuildTableProgramming() {
  piContextIs(piContextFactory());
  piContext()->p4RtSystemStatusIs(p4RtSystemStatus());
  piContext()->hwStatusDirIs(hwStatusDir_);
  ThePiContextIs(piContext());
  p4HandleMgrIs(Vela::make<P4HandleMgr>());
  piContext()->p4HandleMgrIs(p4HandleMgr());
  batchStatusIs(Vela::make<BatchStatus>("batchStatus", tables_.get()));
  notifyEvent_ = Vela::selectableEvent("the reports of forwarding agents");
  batchStatus()->notifyFdIs(notifyEvent_.get());
  piContext()->batchStatusIs(batchStatus());
  TheWriteGateIs(Vela::make<WriteGate>(runtime_.loop, batchStatus(), p4RtSystemStatus()));
  agentConfigSmIs(Vela::make<AgentConfigSm>(runtime_, agentConfig()));
  p4TableInfoIs(Vela::make<P4TableInfo>("p4TableInfo", "p4runtime"));
  tableImplIs(tableImplFactory(p4TableInfo(), p4HandleMgr(), tables_.get(),
                               {.batchStatus = batchStatus(),
                                .systemStatus = p4RtSystemStatus(),
                                .hwStatusDir = hwStatusDir_}));
  piContext()->tableImplIs(tableImpl());
  tableImpl()->initializedIs(true);
  doFollowReports();
}

void Agent::doFollowReports() {
  derivedFailures_ = std::make_unique<DerivedFailures>(tableImpl()->failures());
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
  tables_->lossHandlerIs([this](const std::string& reason) {
    if (p4RtSystemStatus()->brokenInvariant()) return;  // already reported
    P4RuntimeBrokenInvariantException::handleException(P4RuntimeBrokenInvariantException(
        fmt::format("what was to be stored is lost: {}", reason)));
  });
  tables_->observerIs({
      .reports =
          [this](auto reports) {
            batchStatus()->reportsAre(
                derivedFailures_->takeDerived(reports, tables_->lastSequence()));
          },
      .programmed =
          [this](uint64_t sequence) {
            batchStatus()->programmedIs(sequence);
            tableImpl()->handleProgrammed(sequence);
          },
      .inStep =
          [this](uint64_t sequence) {
            batchStatus()->inStepIs(sequence);
            tableImpl()->handleInStep(sequence);
            derivedFailures_->inStepIs(sequence);
          },
      .attached =
          [this](size_t count) {
            batchStatus()->forwardingAgentsAre(count, attachGrace);
            if (status_) doUpdateStatus();
          },
      .notice = [this](const Lattice::Notice& notice) { handleNotice(notice); },
      .left = [this](const Lattice::SubscriberInfo& agent) { handleAgentLeft(agent); },
  });
  batchStatus()->forwardingAgentsAre(tables_->subscribers().size(), attachGrace);
}

// Controllers may lose notices, and those of a forwarding agent that is behind are of no use.
void Agent::handleNotice(const Lattice::Notice& notice) {
  const pi_dev_id_t device = p4RtSystemConfig()->deviceId();
  if (notice.kind == Lattice::Notice::Kind::digest) {
    const pi_status_t status =
        pi_digest_message(device, notice.digestId, notice.message.data(), notice.message.size());
    SCRIVEL_TRACE(6, "handleNotice", " digest: ", notice.digestId, " status: ", status);
    return;
  }
  auto entry = tableImpl()->entryRecord(notice.entryHandle);
  if (!entry) return;
  std::string key(entry->matchKeyData.begin(), entry->matchKeyData.end());
  const pi_match_key_t matchKey{.p4info = nullptr,
                                .table_id = entry->key.rid.id,
                                .priority = static_cast<uint32_t>(entry->matchKeyPriority),
                                .data_size = key.size(),
                                .data = key.data()};
  pi_table_entry_idle(device, entry->key.rid.id, &matchKey);
}

// Its failures leave the list; it reports them again when it attaches again.
void Agent::handleAgentLeft(const Lattice::SubscriberInfo& agent) {
  const size_t failures = tableImpl()->forgetReportsOf(agent.id);
  derivedFailures_->agentDel(agent.id);
  SCRIVEL_TRACE(1, "handleAgentLeft", " ", agent.name, " pid: ", agent.pid,
                " failures: ", failures);
  if (failures == 0) return;
  Vela::tellError(
      "forwarding agent {} has left, and its {} failures leave the list; it reports "
      "them again when it is back",
      agent.name, failures);
}

void Agent::doBuildPipeline() {
  pushedFiles_ = std::make_unique<PushedFiles>(runtime_.stateDirectory + "/pushed");
  typeService_ = Vela::make<Pollen::TypeService>(runtime_.loop, typeConfigDir(), typeStatusDir());
  p4ControllerPktMetadataIs(p4ControllerPktMetadataFactory());
  p4TableInfoSmIs(
      p4TableInfoSmFactory(p4TableInfo(), p4ControllerPktMetadata(), p4RtSystemConfig(),
                           {.typeConfigDir = typeConfigDir(),
                            .typeStatusDir = typeStatusDir(),
                            .queryConfigDir = queryConfigDir(),
                            .queryStatusDir = queryStatusDir(),
                            .tables = tables_.get(),
                            .pushed = pushedFiles_.get(),
                            .entries = &tableImpl()->formerEntries()},
                           {agentConfig()->p4InfoJsonPath(), agentConfig()->deviceJsonPath()}));
  planeQuestions_ = std::make_unique<PlaneQuestions>(*tables_);
  TheForwardingPlaneIs(planeQuestions_.get());
  pipelinePusher_ = Vela::make<PipelinePusher>(PusherPeers{.loop = runtime_.loop,
                                                           .files = *pushedFiles_,
                                                           .plane = *planeQuestions_,
                                                           .tableInfoSm = p4TableInfoSm(),
                                                           .tableInfo = p4TableInfo(),
                                                           .tableImpl = tableImpl(),
                                                           .systemConfig = p4RtSystemConfig(),
                                                           .agentConfig = agentConfig(),
                                                           .systemStatus = p4RtSystemStatus()});
  ThePipelinePushesIs(pipelinePusher_.get());
  mappedPorts_ = std::make_unique<MappedPorts>(agentConfig(), p4RtPortMappingStatus());
  TheKnownPortsIs(mappedPorts_.get());
  Pollen::QueryTables queryTables;
  queryTables.typeOf = [this](const std::string& name) { return p4TableInfo()->typeOfTable(name); };
  queryTables.outputTableIs = [this](const std::string& path, const std::string& type) {
    return p4TableInfoSm()->queryOutputIs(path, type);
  };
  queryTables.database = tables_.get();
  queryConfigSmIs(Vela::make<Pollen::QueryConfigSm>(runtime_.loop, queryConfigDir(),
                                                    queryStatusDir(), queryTables));
  Pollen::QueryEngine& engine = queryConfigSm()->engine();
  engine.derivedRowHandlerIs([this](uint64_t handle, auto, uint64_t sequence, bool deleted) {
    if (deleted) derivedFailures_->noteRemovedRow(handle, sequence);
  });
  derivedFailures_->rowTextsIs([&engine](auto handles) { return engine.rowTexts(handles); });
}

// The launcher keeps the table; without one there are no devices.
void Agent::doAttachKernelDevices() {
  const std::string path = Wirra::kernelDevicesPath();
  if (!runtime_.stateDatabase.entity(path)) {
    runtime_.stateDatabase.entityIs(path, Vela::make<Wirra::KernelNetInterfaceStatus>(path));
  }
  const auto entity = runtime_.stateDatabase.entity(path);
  const Vela::Ptr<const Wirra::KernelNetInterfaceStatus> devices(
      dynamic_cast<const Wirra::KernelNetInterfaceStatus*>(entity.get()));
  kernelNetInterfaceStatusIs(devices);
  kernelNetInterfaceInfoIs(devices);
  if (devices) vrfIdCollection()->kernelNetInterfaceStatusIs(devices);
}

void Agent::doBuildServer() {
  electionIds_ =
      std::make_unique<ElectionIds>(runtime_.store, [this] { return tables_->inBatch(); });
  keepElectionIdsOfServer(*electionIds_);
  for (Vela::Observation& one : followServerLimits(*p4RtSystemConfig())) {
    changes_.push_back(std::move(one));
  }
  doFollowPolicy();  // before the server listens
  keepAccounts(runtime_.stateDirectory);
  doKeepJournal();
  const ServerSecurity security = serverSecurity(*p4RtSystemConfig(), *securityConfig_);
  piServerIs(korvelPiServerFactory(runtime_.loop, p4RtSystemConfig()));
  piServer()->securityIs(security);
  piContext()->piServerIs(piServer());
  TheWriteGate()->levelHandlerIs(
      [server = piServer().get()](uint32_t level) { server->setOperationPermissionLevel(level); });
  piServerInitSmIs(korvelPiServerInitSmFactory(p4TableInfo(), p4RtSystemConfig(),
                                               p4RtSystemStatus(), piServer(), tableImpl()));
  fixedNames_ =
      Vela::make<FixedNames>(piServer()->deviceId(), translationConfigDir_, translationStatus_,
                             [this] { return tableImpl()->restoring(); });
  piServerInitSm()->beforeServingIs([this] { fixedNames_->apply(); });
  changes_.push_back(
      piServerInitSm()->installsAttribute().observe([this] { p4TableInfoSm()->handleServed(); }));
}

void Agent::doFollowPolicy() {
  policyFile_ = Vela::make<PolicyFile>("policy", runtime_.loop);
  const auto security = runtime_.stateDatabase.entity(securityPath);
  const auto* const path = security ? security->attribute("policy") : nullptr;
  if (path == nullptr) return;
  if (!path->text().empty()) policyFile_->pathIs(path->text());
  changes_.push_back(
      path->observe([this, security, path] { policyFile_->handlePath(path->text()); }));
}

void Agent::doKeepJournal() {
  const auto status = Vela::make<JournalStatus>("journal");
  runtime_.stateDatabase.entityIs("p4runtime/status/journal", status);
  journal_ = std::make_unique<WriteJournal>(runtime_.stateDirectory, journalConfig_, status,
                                            runtime_.storeIsNew);
}

void Agent::doBuildCommands() {
  Orrery::Database& database = runtime_.stateDatabase;
  database.settingCheckIs([this](const auto& path, const auto& attribute, const auto& text) {
    return checkSetting(runtime_.stateDatabase, runtime_.pretendedProgrammingAllowed, path,
                        attribute, text);
  });
  cliSmIs(Vela::make<CliSm>(runtime_.loop, cliConfigDir(), cliStatusDir(), cliCommands(database)));
  agentConfigSm()->lastWordsIs([this](std::function<void()> complete) {
    cliSm()->whenAnswersAreTaken(std::move(complete));
  });
}

}  // namespace P4Runtime

extern "C" void korvelAgentStart(const char* name, const P4Runtime::AgentRuntime* runtime) {
  // Never released: the server's threads may outlive main().
  static auto* agent = new Vela::Ptr<P4Runtime::Agent>(P4Runtime::agentFactory(name, *runtime));
  (*agent)->doInit();
  (*agent)->doMount();
}
