#include "P4Runtime/table/TableImpl.h"

#include <fmt/format.h>

#include <cassert>
#include <utility>

#include "P4Runtime/pi/P4RuntimeException.h"
#include "P4Runtime/pi/PiContext.h"
#include "P4Runtime/table/failures/EarlyReports.h"
#include "P4Runtime/table/failures/EntryFailures.h"
#include "P4Runtime/table/failures/StrayReports.h"
#include "P4Runtime/table/records/HandleReservation.h"
#include "P4Runtime/table/restore/Restorer.h"
#include "P4Runtime/table/rows/Refuse.h"
#include "P4Runtime/table/undo/EntrySettler.h"
#include "PI/frontends/proto/device_mgr.h"
#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("TableImpl");

using pi::fe::proto::DeviceMgr;

void breakInvariant(const std::string& why) {
  P4RuntimeBrokenInvariantException::handleException(P4RuntimeBrokenInvariantException(why));
}

}  // namespace

// Each knows only those above it.
struct TableImpl::Rooms {
  Rooms(TableImpl& face, P4TableInfo& tableInfo, P4HandleMgr& handles, EntryFailures& failures)
      : records(face.database_ ? &face.database_->store() : nullptr, tableInfo, handles),
        reservation(handles, face.database_ ? &face.database_->store() : nullptr,
                    face.peers_.hwStatusDir.get()),
        names(tableInfo, handles, records),
        strayReports(handles, names, failures),
        pending(*face.peers_.batchStatus),
        undo(names, failures, face.database_),
        settler(handles, records, pending, undo, strayReports, failures),
        tables(tableInfo, records, restoreMode, *face.peers_.batchStatus,
               face.peers_.systemStatus.get(), face.tableSizeCheckEnabledAttribute()),
        rowBuilder(tableInfo),
        entryKeys(tableInfo, rowBuilder),
        rowWriter(tableInfo, handles, restoreMode, pending),
        entryWriter(tableInfo, handles, entryKeys, face.database_, tables, rowBuilder, rowWriter),
        profileWriter(tableInfo, handles, tables, rowBuilder, rowWriter),
        restorer({.tableInfo = tableInfo,
                  .handles = handles,
                  .database = face.database_,
                  .records = records,
                  .names = names,
                  .failures = failures,
                  .undo = undo,
                  .tables = tables,
                  .mode = restoreMode,
                  .rowBuilder = rowBuilder,
                  .entryWriter = entryWriter,
                  .profileWriter = profileWriter}),
        handles(handles) {
    handles.boundKeysAre(&entryKeys);
  }
  ~Rooms() { handles.boundKeysAre(nullptr); }

  EntryRecords records;
  HandleReservation reservation;
  EntryNames names;
  EarlyReports earlyReports;
  StrayReports strayReports;
  PendingOperations pending;
  EntryUndo undo;
  EntrySettler settler;
  RestoreMode restoreMode;
  WritableTables tables;
  RowBuilder rowBuilder;
  EntryKeys entryKeys;
  RowWriter rowWriter;
  EntryWriter entryWriter;
  ProfileWriter profileWriter;
  Restorer restorer;
  P4HandleMgr& handles;
};

TableImpl::TableImpl(Vela::Ptr<P4TableInfo> tableInfo, Vela::Ptr<P4HandleMgr> handleMgr,
                     Lattice::Database* database, TableImplPeers peers)
    : BatchEntries("tableImpl"),
      tableInfo_(std::move(tableInfo)),
      handleMgr_(std::move(handleMgr)),
      database_(database),
      peers_(std::move(peers)),
      failures_(Vela::make<EntryFailures>("failures")),
      rooms_(std::make_unique<Rooms>(*this, *tableInfo_, *handleMgr_, *failures_)) {
  initializedChange_ = initializedAttribute().observe([this] { handleInitialized(); });
  constTablesChange_ =
      constTablesProgrammedAttribute().observe([this] { handleConstTablesProgrammed(); });
  publishOperations();
}

TableImpl::~TableImpl() = default;

TableImpl* TheTableImpl() { return ThePiContext()->tableImpl().get(); }

Vela::Ptr<TableImpl> tableImplFactory(Vela::Ptr<P4TableInfo> tableInfo,
                                      Vela::Ptr<P4HandleMgr> handleMgr, Lattice::Database* database,
                                      TableImplPeers peers) {
  return Vela::make<TableImpl>(std::move(tableInfo), std::move(handleMgr), database,
                               std::move(peers));
}

std::optional<TableCacheEntry> TableImpl::entryRecord(EntryHandle handle) const {
  if (!handleMgr_->entryHandleToResourceIdHas(handle) || !rooms_->records.isMounted()) {
    return std::nullopt;
  }
  const ResourceId rid = handleMgr_->entryHandleToResourceId(handle);
  if (rid.type != tableResource) return std::nullopt;
  return rooms_->records.tableCache()->cache(recordKey(rid, handle));
}

void TableImpl::publishOperations() {
  operationIs({"triggerCriticalState", {}, [this](const auto&) {
                 triggerCriticalState();
                 return std::string("writes are refused from here on");
               }});
  operationIs({"revertCriticalState", {}, [this](const auto&) {
                 const bool wasCritical = rooms_->tables.isCritical();
                 revertCriticalState();
                 if (!wasCritical) return std::string("the switch was not in critical state");
                 if (restoreNeeded()) {
                   return std::string("writes are allowed again once the entries are restored");
                 }
                 return std::string(DeviceMgr::get_operation_permission_level() == nothingAllowed
                                        ? "writes are allowed again once a pipeline is in place"
                                        : "writes are allowed again");
               }});
}

void TableImpl::handleInitialized() {
  SCRIVEL_TRACE(1, "handleInitialized", " ", initialized());
  if (initialized()) mountCache();
}

void TableImpl::mountCache() {
  cachesLetGo_.open();
  if (!database_ || rooms_->records.isMounted()) return;
  rooms_->records.mount();
  if (rooms_->records.isEmpty()) rooms_->earlyReports.end();  // no restore will ever judge them
  rooms_->reservation.continueHandles();
}

void TableImpl::cleanupCache() {
  if (!database_) return;
  cachesLetGo_.close([this] { doLetGoOfCache(); });
  if (cachesLetGo_.isWaiting()) {
    SCRIVEL_TRACE(1, "TableImpl", " the batch in progress still needs the caches");
  }
}

void TableImpl::doLetGoOfCache() {
  SCRIVEL_TRACE(1, "TableImpl", " unmounting the caches");
  abandonRestore();
  rooms_->restorer.doubtEntries();
  rooms_->records.letGo();
}

bool TableImpl::restoreNeeded() const { return rooms_->restoreMode.isNeeded(); }
void TableImpl::restoreNeededIs(bool needed) {
  if (needed) rooms_->restorer.doubtEntries();
  rooms_->restoreMode.neededIs(needed);
}
void TableImpl::restoreIsNext() { rooms_->restoreMode.neededIs(true); }
void TableImpl::entriesStand() { rooms_->restorer.entriesStand(); }

bool TableImpl::cacheLetGo() const { return rooms_->records.isLetGo(); }
TableCache* TableImpl::tableCache() const { return rooms_->records.tableCache(); }
ActionProfileMemberCache* TableImpl::memberCache() const { return rooms_->records.memberCache(); }
ActionProfileGroupCache* TableImpl::groupCache() const { return rooms_->records.groupCache(); }

void TableImpl::loadEntries(std::span<const EntryHandle> handles) const {
  if (const TableCache* cache = tableCache()) cache->load(handles);
}

EntryHandle TableImpl::tableEntryAdd(const MatchKey& key, const ActionData& action,
                                     const DirectResources& direct) {
  return rooms_->entryWriter.add(key, action, direct);
}

EntryHandle TableImpl::indirectTableEntryAdd(const MatchKey& key, const MemberOrGroup& target,
                                             const DirectResources& direct) {
  return rooms_->entryWriter.addIndirect(key, target, direct);
}

EntryHandle TableImpl::tableEntryDeleteWithKey(const MatchKey& key) {
  return rooms_->entryWriter.deleteEntry(key);
}

EntryHandle TableImpl::actionProfileMemberEntryAdd(uint32_t actProfId, const ActionData& action,
                                                   MemberHandle handle) {
  return rooms_->profileWriter.addMember(actProfId, action, handle);
}

EntryHandle TableImpl::actionProfileMemberEntryDelete(uint32_t actProfId, MemberHandle handle) {
  return rooms_->profileWriter.deleteMember(actProfId, handle);
}

EntryHandle TableImpl::actionProfileGroupEntryAdd(uint32_t actProfId, GroupHandle handle) {
  return rooms_->profileWriter.addGroup(actProfId, handle);
}

EntryHandle TableImpl::actionProfileGroupEntryDelete(uint32_t actProfId, GroupHandle handle) {
  return rooms_->profileWriter.deleteGroup(actProfId, handle);
}

EntryHandle TableImpl::actionProfileGroupAddMbr(uint32_t actProfId, GroupHandle group,
                                                MemberHandle member) {
  return rooms_->profileWriter.addGroupMember(actProfId, group, member);
}

EntryHandle TableImpl::actionProfileGroupDelMbr(uint32_t actProfId, GroupHandle group,
                                                MemberHandle member) {
  return rooms_->profileWriter.deleteGroupMember(actProfId, group, member);
}

EntryHandle TableImpl::actionProfileGroupTouch(uint32_t actProfId, GroupHandle handle) {
  return rooms_->profileWriter.touchGroup(actProfId, handle);
}

void TableImpl::validateKeySize(size_t bytes) const { P4Runtime::validateKeySize(bytes); }

void TableImpl::validateActionSize(size_t bytes) const { P4Runtime::validateActionSize(bytes); }

void TableImpl::validateKeyAndActionSize(size_t keyBytes, size_t actionBytes) const {
  validateKeySize(keyBytes);
  validateActionSize(actionBytes);
}

void TableImpl::maybeCheckTableSizeLimit(const ResourceId& rid, EntryHandle handle) const {
  rooms_->tables.maybeCheckTableSizeLimit(rid, handle);
}

void TableImpl::extractActionFields(const ResourceId& tableRid, const ActionData& action,
                                    RowFields& fields) {
  rooms_->rowBuilder.appendAction(tableRid, action, fields);
}

void TableImpl::addCachedEntry(const ResourceId& rid, EntryHandle handle,
                               const pi_match_key_t& matchKey, const pi_table_entry_t& tableEntry,
                               uint64_t controllerMetadata) {
  assert(rid.type == tableResource);
  TableCacheEntry record;
  record.key = {rid, handle};
  record.cloneTableEntry(matchKey, tableEntry);
  record.controllerMetadata = controllerMetadata;
  if (!tableCache()) return;
  tableCache()->cacheIs(record);
  rooms_->pending.noteChange(handle, rooms_->records.lastChange());
}

void TableImpl::addCachedEntry(const ResourceId& rid, EntryHandle handle,
                               const pi_action_data_t& action, uint32_t memberId) {
  assert(rid.type == actionProfileResource);
  ActionProfileMemberCacheEntry record;
  record.key = recordKey(rid, handle);
  record.cloneActionProfileMemberEntry(action);
  record.memberId = memberId;
  record.memberHandle = record.key.entryHandle;
  if (!memberCache()) return;
  memberCache()->cacheIs(record);
  rooms_->pending.noteChange(handle, rooms_->records.lastChange());
}

void TableImpl::addCachedEntry(const ResourceId& rid, EntryHandle handle, uint32_t groupId) {
  assert(rid.type == groupTableResource);
  if (!groupCache()) return;
  ActionProfileGroupCacheEntry record;
  record.key = recordKey(rid, handle);
  record.groupId = groupId;
  record.groupHandle = record.key.entryHandle;
  const WritableTable table = rooms_->tables.require(rid);
  if (const auto members = groupMembers(*tableInfo_, table, record.groupHandle)) {
    record.members.elementsAre(std::vector<MemberHandle>(members->begin(), members->end()));
  }
  groupCache()->cacheIs(record);
  rooms_->pending.noteChange(handle, rooms_->records.lastChange());
}

void TableImpl::cachedMetadataIs(const ResourceId& rid, EntryHandle handle,
                                 std::string_view metadata) {
  const CacheKey key = recordKey(rid, handle);
  if (metadata.empty() && rooms_->records.metadata(key).empty()) return;
  rooms_->records.metadataIs(key, metadata);
  rooms_->pending.noteChange(handle, rooms_->records.lastChange());
}

std::string TableImpl::cachedMetadata(const CacheKey& key) const {
  return rooms_->records.metadata(key);
}

void TableImpl::deleteCachedEntry(const ResourceId& rid, EntryHandle handle) {
  rooms_->settler.deleteRecord(rid, handle);
}

void TableImpl::updateCachedEntryState(EntryHandle handle, bool abort) {
  rooms_->settler.settle(handle, abort);
}

void TableImpl::updateAllCachedEntryStates() { rooms_->settler.settleAll(); }

void TableImpl::entryCacheDel(const ResourceId& rid, EntryHandle handle) {
  rooms_->settler.removeEntry(rid, handle);
}

void TableImpl::restoreTableEntryOnFailure(EntryHandle handle) {
  rooms_->settler.undoOperation(handle);
}

void TableImpl::batchIsWhole() {
  if (database_) database_->wholeBatchIs(rooms_->pending.changes());
}
uint64_t TableImpl::lastPutBack() const { return rooms_->undo.lastPutBack(); }

void TableImpl::clearPendingOperations() {
  rooms_->pending.clear();
  rooms_->undo.forgetLastPutBack();
}
size_t TableImpl::numPendingEntries() const { return rooms_->pending.awaitedCount(); }
bool TableImpl::anyPutBack() const { return rooms_->undo.putBackCount() > 0; }
void TableImpl::commitOrThrow() { rooms_->undo.commitOrThrow(); }

// The front end takes the entries for undone, so that only a restore brings it and the store
// together.
void TableImpl::commitPutBack() {
  const size_t count = rooms_->undo.putBackCount();
  const Vela::Outcome stored = rooms_->undo.commit();
  if (stored.ok()) return;
  restoreNeededIs(true);
  breakInvariant(fmt::format("{} failed {} could not be put back as before: {}", count,
                             count == 1 ? "entry" : "entries", stored.reason()));
}

void TableImpl::handleConstTablesProgrammed() {
  if (!constTablesProgrammed()) return;
  SCRIVEL_TRACE(1, "TableImpl",
                " Finished programming const entries - num:: ", rooms_->pending.count());
  clearPendingOperations();
}

void TableImpl::restoreCachedEntries() {
  beginRestore();
  advanceRestore(RestoreSlice::whole());
}

FormerEntries& TableImpl::formerEntries() { return rooms_->restorer; }
uint64_t TableImpl::pushOfEntries() const { return rooms_->restorer.pushOfEntries(); }
bool TableImpl::hasNoEntries() const { return rooms_->restorer.isEmpty(); }

void TableImpl::beginRestore() {
  rooms_->earlyReports.begin();
  trackRestore([this] { rooms_->restorer.begin(deviceId()); });
}

bool TableImpl::advanceRestore(RestoreSlice slice) {
  bool isDone = false;
  trackRestore([&] { isDone = rooms_->restorer.advance(slice); });
  if (!isDone) return false;
  for (const EarlyReports::Kept& kept : rooms_->earlyReports.end()) judgeReport(kept.report());
  return true;
}

void TableImpl::abandonRestore() {
  rooms_->restorer.abandon();
  restoringIs(false);
}

template <typename Step>
void TableImpl::trackRestore(Step step) try {
  step();
  restoringIs(rooms_->restorer.isRunning());
} catch (...) {
  restoringIs(false);
  throw;
}

RestoreProgress TableImpl::restoreProgress() const { return rooms_->restorer.progress(); }

void TableImpl::restoreActionMemberCachedEntries() { rooms_->restorer.restoreMembers(deviceId()); }
void TableImpl::restoreActionGroupCachedEntries() { rooms_->restorer.restoreGroups(deviceId()); }
void TableImpl::restoreTableCachedEntries() { rooms_->restorer.restoreEntries(deviceId()); }
ConstantEntries& TableImpl::constantEntries() { return rooms_->restorer.constantEntries(); }

std::vector<Brine::DamagedRecord> TableImpl::tellDamagedRecords() {
  return rooms_->restorer.tellDamagedRecords();
}

void TableImpl::triggerCriticalState() {
  breakInvariant("WRITE operation is not allowed due to critical state");
}

void TableImpl::revertCriticalState() {
  if (restoreNeeded()) restoreRequestsIs(restoreRequests() + 1);
  P4RuntimeBrokenInvariantException::revertCriticalState();
}

// A forwarding agent that outlived the former agent process reports as soon as it is attached. A
// success ends a failure that was listed before a later restore.
void TableImpl::handleStrayReport(const Lattice::Report& report) {
  if (rooms_->earlyReports.isOver()) return judgeReport(report);
  if (report.errorCode == 0) rooms_->strayReports.recordProgrammed(report);
  if (!rooms_->earlyReports.keep(report)) failures_->countReportOnNoRow();
}

void TableImpl::judgeReport(const Lattice::Report& report) {
  if (report.errorCode == 0) return rooms_->strayReports.recordProgrammed(report);
  if (rooms_->pending.has(report.entryHandle)) return;  // of an earlier write of the entry
  rooms_->strayReports.recordFailed(report);
}

size_t TableImpl::forgetReportsOf(uint64_t subscriber) {
  rooms_->earlyReports.forgetOf(subscriber);
  return failures_->agentDel(subscriber);
}

void TableImpl::handleInStep(uint64_t sequence) {
  SCRIVEL_TRACE(1, "handleInStep", " sequence: ", sequence);
  failures_->inStepIs(sequence);
}

void TableImpl::handleProgrammed(uint64_t sequence) { failures_->programmedUpToIs(sequence); }

}  // namespace P4Runtime
