// Publishes the agent and its parts in the state database, for operators.
#include <fmt/format.h>
#include <unistd.h>

#include <chrono>

#include "P4Runtime/agent/Agent.h"
#include "P4Runtime/monitoring/StatusJson.h"
#include "P4Runtime/pi/WriteGate.h"
#include "P4Runtime/pipeline/ParsingStatus.h"
#include "P4Runtime/table/TableImpl.h"
#include "P4Runtime/table/failures/EntryFailures.h"
#include "PI/frontends/proto/device_mgr.h"
#include "PI/proto/pi_server.h"
#include "PI/proto/pi_server_process.h"

namespace P4Runtime {
namespace {

constexpr std::chrono::milliseconds statusPeriod(500);
constexpr std::chrono::milliseconds progressPeriod(50);

std::string permissionText(uint32_t level) {
  static const char* const texts[] = {"neither reads nor writes", "reads only", "reads and writes"};
  return level <= writesAllowed ? texts[level] : std::to_string(level);
}

std::string restoringText(const TableImpl& tables) {
  const RestoreProgress progress = tables.restoreProgress();
  return tables.restoring() ? fmt::format("{} of {} entries", progress.entries, progress.all) : "";
}

}  // namespace

// For `korvel status`, `get` and `call`.
void Agent::doPublish() {
  Orrery::Database& database = runtime_.stateDatabase;
  status_ = Vela::make<AgentStatus>("agent");
  database.entityIs("p4runtime/status/agent", status_);
  database.entityIs("p4runtime/status/pipeline", Vela::Ptr<Vela::Entity>(TheParsingStatus()));
  database.entityIs("p4runtime/status/policy", policyFile_);
  database.entityIs("p4runtime/status/failures", tableImpl()->failures());
  database.entityIs("p4runtime/tableImpl", tableImpl());
  database.entityIs("p4runtime/tableInfo", p4TableInfo());
  database.entityIs("p4runtime/batchStatus", batchStatus());
  database.entityIs("p4runtime/pipeline", pipelinePusher_);
  database.entityIs("p4runtime/writeGate", Vela::Ptr<Vela::Entity>(TheWriteGate()));
  database.entityIs("p4runtime/piServer", piServer());
  database.entityIs("p4runtime/status/vrf", vrfIdCollection());
  const auto update = [this] { doUpdateStatus(); };
  changes_.push_back(p4RtSystemStatus()->criticalAttribute().observe(update));
  changes_.push_back(piServer()->serverReadyAttribute().observe(update));
  doFollowRestore();
  changes_.push_back(p4TableInfo()->tableInfoStateAttribute().observe(update));
  statusTimer_ = std::make_unique<Vela::Timer>(runtime_.loop, [this] {
    doUpdateStatus();
    status_->electionIdsNotKeptIs(electionIds_->keepUnkept());
    journal_->update();
  });
  statusTimer_->start(std::chrono::milliseconds(0), statusPeriod);
  doMonitor();
}

void Agent::doMonitor() {
  const Observed agent{.stateDatabase = runtime_.stateDatabase,
                       .tables = *tables_,
                       .store = runtime_.store,
                       .tableInfo = p4TableInfo(),
                       .portMapping = p4RtPortMappingStatus()};
  const auto status =
      Vela::make<MonitoringStatus>("monitoring", [agent] { return statusJson(agent); });
  runtime_.stateDatabase.entityIs("p4runtime/status/monitoring", status);
  monitoring_ = std::make_unique<Monitoring>(monitoringConfig_, securityConfig_, status, agent);
}

void Agent::doFollowRestore() {
  progressTimer_ = std::make_unique<Vela::Timer>(
      runtime_.loop, [this] { status_->restoringIs(restoringText(*tableImpl())); });
  changes_.push_back(tableImpl()->restoringAttribute().observe([this] {
    doUpdateStatus();
    if (tableImpl()->restoring()) {
      progressTimer_->start(progressPeriod, progressPeriod);
    } else {
      progressTimer_->stop();
    }
  }));
}

void Agent::doTellSecurity() {
  const std::string text = securityText(piServer()->security(), piServer()->piServerPort());
  status_->serverSecurityIs(text);
  securityLog_.textIs(text);
}

void Agent::doUpdateStatus() {
  status_->pidIs(getpid());
  status_->deviceIdIs(p4RtSystemConfig()->deviceId());
  const bool hasAddress = piServer()->piServerPort() != 0;
  status_->serverAddressIs(hasAddress ? piServer()->serverAddressPortStr()
                                      : "unix:" + piServer()->security().unixSocket);
  const bool listens = PIGrpcServerWaitStarted(0) == 0;
  status_->serverListensIs(listens);
  if (listens) doTellSecurity();
  status_->serverReadyIs(piServer()->serverReady() && !tableImpl()->restoring());
  status_->restoringIs(restoringText(*tableImpl()));
  const bool runs = p4TableInfo()->tableInfoState() == P4TableInfoState::tableInfoReady;
  status_->pipelineFileIs(runs ? TheParsingStatus()->pipelineFile()
                               : p4RtSystemConfig()->forwardingPipelineConfigFilePath());
  status_->pipelineStateIs(enumToText(p4TableInfo()->tableInfoState()));
  status_->permissionLevelIs(
      permissionText(pi::fe::proto::DeviceMgr::get_operation_permission_level()));
  status_->tablesIs(p4TableInfo()->tableFillText());
  queryConfigSm()->publishStatuses();
  status_->queriesIs(queryConfigSm()->statusText());
  status_->pluginsIs(pluginsText());
  derivedFailures_->list();
  std::string subscribers;
  const auto attached = tables_->subscribers();
  for (const Lattice::SubscriberInfo& subscriber : attached) {
    subscribers += fmt::format("{}{} (pid {}): received up to change {}, {} reports{}",
                               subscribers.empty() ? "" : "\n", subscriber.name, subscriber.pid,
                               subscriber.sequence, subscriber.reports,
                               subscriber.takingSnapshot ? ", taking a snapshot" : "");
  }
  status_->subscribersIs(subscribers);
  status_->forwardingAgentsIs(attached.size());
  status_->pretendsProgrammingIs(batchStatus()->pretendHwProgramming());
  status_->reportsAcceptedIs(batchStatus()->reportsAccepted());
  status_->reportsDroppedIs(batchStatus()->reportsDropped());
  status_->doorbellMessagesDroppedIs(tables_->droppedMessages());
  tableImpl()->tellDamagedRecords();
  status_->failedEntriesIs(tableImpl()->failures()->failedEntries());
  status_->reportsOnNoRowIs(tableImpl()->failures()->reportsOnNoRow());
  status_->connectionsRefusedIs(PIGrpcServerGetRefusedConnections());
  status_->stateDirectoryBytesIs(runtime_.store.bytesUsed());
  status_->storeIs(runtime_.storeText);
  doUpdateHealth();
}

// What controllers would get from a Write. Without a pipeline they may push one.
void Agent::doUpdateHealth() {
  const bool isCritical = p4RtSystemStatus()->critical() || p4RtSystemStatus()->brokenInvariant();
  const bool programs = !tables_->subscribers().empty() || batchStatus()->pretendHwProgramming();
  PIGrpcServerServingIs(!isCritical && programs && !tableImpl()->restoring());
}

}  // namespace P4Runtime
