#include "P4Runtime/agent/KorvelPiServerInitSm.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "P4Runtime/pi/P4RuntimeException.h"
#include "P4Runtime/table/restore/ConstantEntries.h"
#include "PI/frontends/proto/translation_tables.h"
#include "PI/int/pi_int.h"
#include "PI/pi.h"
#include "PI/pi_extensions.h"
#include "PI/target/pi_tables_imp.h"
#include "platform/scrivel/Trace.h"
#include "platform/vela/ErrorLine.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("KorvelPiServerInitSm");

}  // namespace

KorvelPiServerInitSm::KorvelPiServerInitSm(
    Vela::Ptr<P4TableInfo> tableInfo,
    Vela::Ptr<const P4RuntimeConfig::P4RtSystemConfig> systemConfig,
    Vela::Ptr<P4RuntimeConfig::P4RtSystemStatus> systemStatus, Vela::Ptr<KorvelPiServer> server,
    Vela::Ptr<TableImpl> tableImpl)
    : Entity("piServerInitSm") {
  observeReferences();
  tableInfoIs(std::move(tableInfo));
  p4RtSystemConfigIs(std::move(systemConfig));
  p4RtSystemStatusIs(std::move(systemStatus));
  serverIs(std::move(server));
  tableImplIs(std::move(tableImpl));
}

Vela::Ptr<KorvelPiServerInitSm> korvelPiServerInitSmFactory(
    Vela::Ptr<P4TableInfo> tableInfo,
    Vela::Ptr<const P4RuntimeConfig::P4RtSystemConfig> systemConfig,
    Vela::Ptr<P4RuntimeConfig::P4RtSystemStatus> systemStatus, Vela::Ptr<KorvelPiServer> server,
    Vela::Ptr<TableImpl> tableImpl) {
  auto sm = Vela::make<KorvelPiServerInitSm>(std::move(tableInfo), std::move(systemConfig),
                                             std::move(systemStatus), std::move(server),
                                             std::move(tableImpl));
  sm->handleInitialized();
  sm->initializedIs(true);
  return sm;
}

void KorvelPiServerInitSm::observeReferences() {
  references_.push_back(tableInfoAttribute().observe([this] {
    tableInfoChange_ =
        tableInfo()
            ? tableInfo()->tableInfoStateAttribute().observe([this] { handleTableInfoState(); })
            : Vela::Observation();
  }));
  references_.push_back(p4RtSystemConfigAttribute().observe([this] {
    configChange_ = p4RtSystemConfig() ? p4RtSystemConfig()->grpcServerPortAttribute().observe(
                                             [this] { doKillPiServerThread(); })
                                       : Vela::Observation();
  }));
  references_.push_back(serverAttribute().observe([this] {
    serverChange_ = server()
                        ? server()->serverReadyAttribute().observe([this] { handleServerReady(); })
                        : Vela::Observation();
  }));
  references_.push_back(tableImplAttribute().observe([this] {
    restoreRequest_ =
        tableImpl()
            ? tableImpl()->restoreRequestsAttribute().observe([this] { handleRestoreRequests(); })
            : Vela::Observation();
  }));
}

void KorvelPiServerInitSm::handleInitialized() {
  SCRIVEL_TRACE(1, "handleInitialized");
  doSpawnServerThread();
  // A pipeline without tables is ready in the very turn that reads it, before this is there.
  if (tableInfo()->tableInfoState() == P4TableInfoState::tableInfoReady) handleTableInfoState();
}

void KorvelPiServerInitSm::doSpawnServerThread() {
  SCRIVEL_TRACE(1, "doSpawnServerThread");
  server()->startProcessing();
}

void KorvelPiServerInitSm::handleTableInfoState() {
  SCRIVEL_TRACE(1, "handleTableInfoState",
                " tableInfoState: ", static_cast<int>(tableInfo()->tableInfoState()));
  if (move_.isClosed()) return;  // the end of the move asks again
  try {
    doApplyTableInfoState();
  } catch (const P4RuntimeBrokenInvariantException& e) {
    P4RuntimeBrokenInvariantException::handleException(e);
  }
}

void KorvelPiServerInitSm::doApplyTableInfoState() {
  if (!server()) {
    throw P4RuntimeBrokenInvariantException(
        "Server is not ready. Yet we are trying to handle table info state");
  }
  switch (tableInfo()->tableInfoState()) {
    case P4TableInfoState::tableInfoReady:
      doPushPipeline();
      return;
    case P4TableInfoState::tableInfoNotReady:
    case P4TableInfoState::tableInfoError:
      tableImpl()->abandonRestore();  // the next pipeline begins another one
      noPipeline_.close();
      push_.open();  // cancels a push that still waits for the batch in progress
      return;
  }
  throw P4RuntimeBrokenInvariantException(fmt::format(
      "Unrecognized tableInfoState {}", static_cast<int>(tableInfo()->tableInfoState())));
}

// The server takes a pipeline between two Writes. The push blocks the reactor, so a Write in
// progress would hear nothing from the forwarding plane. No Write may begin under the former
// pipeline, or before the entries are restored.
void KorvelPiServerInitSm::doPushPipeline() {
  if (server()->serverReady()) {
    push_.close([this] { maybeSignal(); });
    noPipeline_.open();
  } else {
    noPipeline_.open();
    maybeSignal();
  }
}

void KorvelPiServerInitSm::maybeSignal() {
  if (move_.isClosed()) return;  // the end of the move asks again
  if (tableInfo()->tableInfoState() != P4TableInfoState::tableInfoReady) return;
  server()->pipelineRequestIs(tableInfo()->pipelineRequest());
  server()->signal();
}

void KorvelPiServerInitSm::handleServerReady() {
  SCRIVEL_TRACE(1, "handleServerReady", " ", server()->serverReady());
  tableImpl()->abandonRestore();  // of entries into a former pipeline of the server
  if (!server()->serverReady()) return;
  // The agent was disabled after the push: without tables no record can be restored. The pipeline
  // is pushed again once the tables are back.
  if (tableInfo()->tableInfoState() != P4TableInfoState::tableInfoReady) return;
  doBeginRestore();
}

// The server takes entries back only after a push.
void KorvelPiServerInitSm::handleRestoreRequests() {
  SCRIVEL_TRACE(1, "handleRestoreRequests", " ", tableImpl()->restoreRequests());
  if (tableImpl()->restoring()) return;  // it is under way
  handleTableInfoState();
}

// Until all is restored nothing may be written, and controllers wait.
void KorvelPiServerInitSm::doBeginRestore() {
  tableImpl()->restoreIsNext();
  doAdvanceRestore(slice_);
}

void KorvelPiServerInitSm::doAdvanceRestore(const RestoreSlice& slice) {
  if (!maybeFinishRestore(slice)) return doPostRestoreTurn();
  if (beforeServing_) beforeServing_();
  pi_restore_done(server()->deviceId());
  push_.open();
  installsIs(installs() + 1);
}

// After a failed restore the server would delete members and groups that none of its entries
// claims, although the entries stand.
bool KorvelPiServerInitSm::maybeFinishRestore(const RestoreSlice& slice) {
  try {
    if (!tableImpl()->restoring()) tableImpl()->beginRestore();
    if (!tableImpl()->advanceRestore(slice)) return false;
    tableImpl()->restoreNeededIs(false);
    programConstantTables();
    tableImpl()->commitOrThrow();
    tableImpl()->entriesStand();
  } catch (const std::exception& e) {  // of the store
    tableImpl()->restoreNeededIs(true);
    P4RuntimeBrokenInvariantException::handleException(P4RuntimeBrokenInvariantException(
        fmt::format("the surviving entries could not be restored: {}", e.what())));
  }
  return true;
}

// Commands, signals and forwarding agents get their turns in between.
void KorvelPiServerInitSm::doPostRestoreTurn() {
  if (std::exchange(turnIsPosted_, true)) return;
  server()->loop().post([this, alive = Vela::Ptr<KorvelPiServerInitSm>(this)] {
    turnIsPosted_ = false;
    if (tableImpl()->restoring()) doAdvanceRestore(slice_);  // else it was abandoned
  });
}

void KorvelPiServerInitSm::programConstantTables() {
  SCRIVEL_TRACE(1, "programConstantTables");
  tableImpl()->constTablesProgrammedIs(false);
  const auto& tables = tableInfo()->constEntriesCollection().values();
  std::vector<ResourceId> rids;
  for (const auto& [rid, entries] : tables) {
    if (rid.type == tableResource) rids.push_back(rid);
  }
  std::sort(rids.begin(), rids.end());
  std::ranges::stable_partition(rids, [](const ResourceId& rid) {  // names before their users
    return pi::fe::proto::is_translation_table(rid.id);
  });
  const uint64_t push = tableImpl()->pushOfEntries();
  const bool initialOnes = tableImpl()->constantEntries().initialEntriesAreDue(push);
  bool anyInitial = false;
  for (const ResourceId& rid : rids) {
    for (const P4TableInfoConstEntry& entry : tables.at(rid).entry()) {
      anyInitial |= entry.isInitial;
      if (initialOnes || !entry.isInitial) programConstantEntry(rid.id, entry);
    }
  }
  if (anyInitial) tableImpl()->constantEntries().initialEntriesAreDone(push);
  tableImpl()->constTablesProgrammedIs(true);
}

void KorvelPiServerInitSm::programConstantEntry(uint32_t tableId,
                                                const P4TableInfoConstEntry& entry) {
  const ResourceId rid{tableResource, tableId};
  std::string key = bytesFromHexadecimal(entry.key);
  const pi_dev_id_t deviceId = server()->deviceId();
  const pi_p4info_t* p4info = pi_get_device_p4info(deviceId);
  const pi_match_key_t matchKey{p4info, tableId, entry.priority, key.size(), key.data()};
  const EntryHandle known =
      tableImpl()->handleMgr().matchKeyToEntryHandle(tableId, key, entry.priority);
  if (known != 0 && entry.isInitial) return;
  if (known != 0) {
    SCRIVEL_TRACE(5, "programConstantTables",
                  " Constant entry is already in cache with entryhandle ", known);
    pi_constant_table_entry_state(deviceId, tableId, &matchKey, nullptr, known);
    tableImpl()->constantEntries().maybeProgrammedIs(rid, known, entry);
    return;
  }
  std::string parameters = bytesFromHexadecimal(entry.actionParams);
  pi_action_data_t action{p4info, entry.actionId, parameters.size(), parameters.data()};
  pi_table_entry_t tableEntry{};
  tableEntry.entry_type = PI_ACTION_ENTRY_TYPE_DATA;
  tableEntry.entry.action_data = &action;
  pi_entry_handle_t handle = 0;
  const pi_status_t status = _pi_table_entry_add(0, pi_dev_tgt_t{deviceId, 0}, tableId, &matchKey,
                                                 &tableEntry, 0, &handle);
  tableImpl()->updateCachedEntryState(handle, false);
  if (status == PI_STATUS_SUCCESS && entry.isInitial) {
    pi_restore_table_entry_state(deviceId, tableId, &matchKey, &tableEntry, handle, 0, nullptr, 0);
    return;
  }
  if (status == PI_STATUS_SUCCESS) {
    pi_constant_table_entry_state(deviceId, tableId, &matchKey, &tableEntry, handle);
    tableImpl()->constantEntries().programmedIs(rid, handle, entry);
    return;
  }
  Vela::tellError("a constant entry of table {} (key {}) could not be added",
                  tableInfo()->nameOf(rid), entry.key);
  if (status != updateFailedStatus) {
    SCRIVEL_TRACE(0, "programConstantTables", "Failed to add const entry to table: ", tableId,
                  " return code: ", static_cast<int>(status));
  }
}

// Calls that the server took must get their responses from it.
void KorvelPiServerInitSm::doKillPiServerThread() {
  SCRIVEL_TRACE(1, "doKillPiServerThread");
  if (move_.isClosed()) return;  // the fresh server takes the address of the moment it starts
  // Calls that wait for the end of a restore would keep the server from shutting down.
  if (tableImpl()->restoring()) doAdvanceRestore(RestoreSlice::whole());
  move_.close([this] { doMoveServer(); });
}

void KorvelPiServerInitSm::doMoveServer() {
  server()->doShutDown([this, alive = Vela::Ptr<KorvelPiServerInitSm>(this)] {
    push_.open();  // the fresh server has no pipeline that another could replace
    move_.open();  // before the address is read: a change from here on moves it again
    server()->doCleanup();
    handleTableInfoState();
  });
}

}  // namespace P4Runtime
