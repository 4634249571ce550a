// The cache side of the table implementation: records of what was programmed, their states, and
// what puts an entry back when its programming failed.
#include <fmt/format.h>

#include <algorithm>
#include <cassert>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "P4Runtime/companion/BatchStatus.h"
#include "P4Runtime/companion/HwStatusDir.h"
#include "P4Runtime/pi/P4RuntimeException.h"
#include "P4Runtime/pi/PiContext.h"
#include "P4Runtime/table/Restoring.h"
#include "P4Runtime/table/TableImpl.h"
#include "P4Runtime/table/failures/EntryFailures.h"
#include "P4Runtime/table/failures/FailureText.h"
#include "P4Runtime/table/rows/RowFields.h"
#include "PI/pi_extensions.h"
#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("TableImpl");

constexpr const char* cachePath = "p4runtime/cache/";
constexpr const char* reservedHandlesTable = "p4runtime/handles";

// A new store knows nothing of the handles of its predecessor, under which forwarding agents may
// have left counts. More of them than one a microsecond were never given out.
EntryHandle handlesOfFormerStores() {
  const auto context = ThePiContext();
  const auto hwStatus = context ? context->hwStatusDir() : nullptr;
  if (!hwStatus || !hwStatus->anyFlowCounter()) return 0;
  const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<EntryHandle>(
      std::chrono::duration_cast<std::chrono::microseconds>(sinceEpoch).count());
}

}  // namespace

void TableImpl::handleInitialized() {
  SCRIVEL_TRACE(1, "handleInitialized", " ", initialized());
  if (initialized()) mountCache();
}

void TableImpl::mountCache() {
  cachesLetGo_.open();
  if (!database_ || tableCache_) return;
  Brine::Store& store = database_->store();
  const std::string path = cachePath;
  tableCache_ = Vela::make<TableCache>(store, path + "table");
  memberCache_ = Vela::make<ActionProfileMemberCache>(store, path + "actionProfileMember");
  groupCache_ = Vela::make<ActionProfileGroupCache>(store, path + "actionProfileGroup");
  metadataTable_ = store.table(path + "metadata");
  cacheLetGo_ = false;
  const size_t records =
      tableCache_->recordCount() + memberCache_->recordCount() + groupCache_->recordCount();
  if (records == 0) earlyReports_.end();
  doContinueHandles();
}

// Counts of forwarding agents that have ended stand under the handles of their time: none may come
// again, be the entry long deleted.
void TableImpl::doContinueHandles() {
  Brine::Store& store = database_->store();
  const Brine::TableNumber reserved = store.table(reservedHandlesTable);
  const Brine::Bytes key = Brine::asBytes("entry");
  EntryHandle upTo = 0;
  if (const auto stored = store.get(reserved, key); stored && stored->size() == sizeof upTo) {
    std::memcpy(&upTo, stored->data(), sizeof upTo);
  }
  if (upTo == 0) upTo = handlesOfFormerStores();
  handleMgr_->reserveUpTo(std::min(upTo, largestEntryHandle));
  handleMgr_->reservationHandlerIs([this, reserved](EntryHandle end) {
    const std::string_view bytes(reinterpret_cast<const char*>(&end), sizeof end);
    try {
      database_->store().put(reserved, Brine::asBytes("entry"), Brine::asBytes(bytes));
    } catch (const Brine::StoreError& e) {
      throw P4RuntimeException(e.what(), 0, pi_batch_current_offset(), ErrorCode::outOfResources);
    }
  });
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
  cacheLetGo_ = true;
  tableCache_ = nullptr;
  memberCache_ = nullptr;
  groupCache_ = nullptr;
  metadataTable_.reset();
}

void TableImpl::addCachedEntry(const ResourceId& rid, EntryHandle handle,
                               const pi_match_key_t& matchKey, const pi_table_entry_t& tableEntry,
                               uint64_t controllerMetadata) {
  assert(rid.type == tableResource);
  TableCacheEntry record;
  record.key = {rid, handle};
  record.cloneTableEntry(matchKey, tableEntry);
  record.controllerMetadata = controllerMetadata;
  if (!tableCache_) return;
  tableCache_->cacheIs(record);
  const auto pending = pendingOperations_.find(handle);
  if (pending == pendingOperations_.end()) return;
  // Kept until the outcome is known: to look the record up again would cost more than this copy.
  std::string& written = pending->second.newRecord;
  written.resize(record.serializeLen());
  record.serialize(reinterpret_cast<uint8_t*>(written.data()));
}

void TableImpl::addCachedEntry(const ResourceId& rid, EntryHandle handle,
                               const pi_action_data_t& action, uint32_t memberId) {
  assert(rid.type == actionProfileResource);
  ActionProfileMemberCacheEntry record;
  record.key = {rid, P4HandleMgr::cachedHandle(handle)};
  record.cloneActionProfileMemberEntry(action);
  record.memberId = memberId;
  record.memberHandle = record.key.entryHandle;
  if (memberCache_) memberCache_->cacheIs(record);
}

void TableImpl::addCachedEntry(const ResourceId& rid, EntryHandle handle, uint32_t groupId) {
  assert(rid.type == groupTableResource);
  if (!groupCache_) return;
  ActionProfileGroupCacheEntry record;
  record.key = {rid, P4HandleMgr::cachedHandle(handle)};
  record.groupId = groupId;
  record.groupHandle = record.key.entryHandle;
  if (const auto members = groupMembers(requireTable(rid), record.groupHandle)) {
    record.members.elementsAre(std::vector<MemberHandle>(members->begin(), members->end()));
  }
  groupCache_->cacheIs(record);
}

void TableImpl::cachedMetadataIs(const ResourceId& rid, EntryHandle handle,
                                 std::string_view metadata) {
  if (!metadataTable_) return;
  Brine::Store& store = database_->store();
  const auto key = storedKey({rid, P4HandleMgr::cachedHandle(handle)});
  if (!metadata.empty()) {
    store.put(*metadataTable_, key, Brine::asBytes(metadata));
  } else if (store.count(*metadataTable_) > 0) {
    store.erase(*metadataTable_, key);
  }
}

std::string TableImpl::cachedMetadata(const CacheKey& key) const {
  if (!metadataTable_ || database_->store().count(*metadataTable_) == 0) return {};
  const auto stored = database_->store().get(*metadataTable_, storedKey(key));
  return stored ? std::string(Brine::asText(*stored)) : std::string();
}

void TableImpl::deleteCachedEntry(const ResourceId& rid, EntryHandle handle) {
  if (rid.type != tableResource) {
    recordDel({rid, P4HandleMgr::cachedHandle(handle)});  // the pending operation has a copy
    cachedMetadataIs(rid, handle, {});
    return;
  }
  if (cachedState({rid, handle})) cachedStateIs({rid, handle}, EntryState::pendingToBeDeleted);
}

std::optional<EntryState> TableImpl::cachedState(const CacheKey& key) const {
  const auto stored = tableCache_ ? tableCache_->stored(key) : std::nullopt;
  const auto record = stored ? TableRecordView::of(*stored) : std::nullopt;
  if (!record) return std::nullopt;
  return record->entryState;
}

void TableImpl::cachedStateIs(const CacheKey& key, EntryState state) {
  uint8_t bytes[sizeof state];
  std::memcpy(bytes, &state, sizeof state);
  tableCache_->storedBytesAre(key, TableCacheEntry::stateAt, bytes);
}

CacheKey TableImpl::cacheKey(EntryHandle handle) const {
  return {handleMgr_->entryHandleToResourceId(handle), P4HandleMgr::cachedHandle(handle)};
}

// Valid until the next write of the store.
std::optional<Brine::Bytes> TableImpl::storedRecord(const CacheKey& key) const {
  if (!tableCache_) return std::nullopt;
  if (key.rid.type == actionProfileResource) return memberCache_->stored(key);
  if (key.rid.type == groupTableResource) return groupCache_->stored(key);
  return tableCache_->stored(key);
}

void TableImpl::recordDel(const CacheKey& key) {
  if (!tableCache_) return;
  if (key.rid.type == actionProfileResource) {
    memberCache_->cacheDel(key);
  } else if (key.rid.type == groupTableResource) {
    groupCache_->cacheDel(key);
  } else if (key.rid.type == tableResource) {
    tableCache_->cacheDel(key);
  } else {
    fmt::print(stderr, " Unhandled resource id {}\n", toText(key.rid));
    assert(!"unhandled resource id");
  }
}

void TableImpl::rememberRecord(EntryHandle handle, PendingOperation& operation) const {
  const CacheKey key{operation.rid, P4HandleMgr::cachedHandle(handle)};
  if (const auto stored = storedRecord(key)) {
    operation.oldRecord = std::string(Brine::asText(*stored));
  }
  operation.oldMetadata = cachedMetadata(key);
}

// One entry whose outcome cannot be stored must not keep the others of its batch from theirs.
void TableImpl::updateCachedEntryState(EntryHandle handle, bool abort) try {
  doUpdateCachedEntryState(handle, abort);
} catch (const std::exception& e) {
  SCRIVEL_TRACE(0, "TableImpl", " entryHandle: ", handle, " abort: ", abort, " ", e.what());
  if (!abort) return;  // what was written stands; a restart makes its record stable
  P4RuntimeBrokenInvariantException::handleException(P4RuntimeBrokenInvariantException(
      fmt::format("a failed entry of {} could not be undone: {}",
                  tableInfo_->nameOf(handleMgr_->entryHandleToResourceId(handle)), e.what())));
}

void TableImpl::doUpdateCachedEntryState(EntryHandle handle, bool abort) {
  PendingOperation done;
  if (abort) {
    SCRIVEL_TRACE(1, "TableImpl", " restoring old entry for entryHandle: ", handle);
    if (handleMgr_->entryHandleToResourceIdHas(handle)) restoreTableEntryOnFailure(handle);
  } else {
    SCRIVEL_TRACE(7, "TableImpl", " erasing entryHandle: ", handle, " on success");
    if (const auto operation = pendingOperations_.extract(handle)) {
      done = std::move(operation.mapped());
    }
    TheBatchStatus()->pendingOperationDel(handle);  // of a constant entry, which nobody waits for
    if (!failures_->empty()) handleMended(handle);
  }
  const bool known = done.rid.type != 0;
  const ResourceId rid = known ? done.rid : handleMgr_->entryHandleToResourceId(handle);
  if (rid.type != tableResource) {
    SCRIVEL_TRACE(6, "TableImpl", "Entry handle: ", handle, " already deleted?");
    // Of a member or group only the handle is left.
    if (done.type == PendingOperationType::entryDelete) entryCacheDel(rid, handle);
    return;
  }
  if (!done.newRecord.empty() && tableCache_) {
    const EntryState stable = EntryState::stable;
    std::memcpy(done.newRecord.data() + TableCacheEntry::stateAt, &stable, sizeof stable);
    tableCache_->storedIs({rid, handle}, Brine::asBytes(done.newRecord));
    return;
  }
  const auto state = cachedState({rid, handle});
  if (!state) {
    SCRIVEL_TRACE(1, "TableImpl", "Entry handle: ", handle, " does not exist in cache");
    return;
  }
  if (*state == EntryState::stable) return;
  if ((*state == EntryState::pendingToBeAdded) == abort) {
    entryCacheDel(rid, handle);
  } else {
    cachedStateIs({rid, handle}, EntryState::stable);
  }
}

void TableImpl::entryCacheDel(const ResourceId& rid, EntryHandle handle) {
  if (!handleMgr_->entryHandleToResourceIdHas(handle)) {
    SCRIVEL_TRACE(1, "TableImpl", " Entry handle: ", handle, " is not mapped to a riod");
    return;
  }
  recordDel({rid, P4HandleMgr::cachedHandle(handle)});
  cachedMetadataIs(rid, handle, {});
  failures_->failureDel(handle);
  handleMgr_->freeEntryHandle(handle);
}

void TableImpl::restoreTableEntryOnFailure(EntryHandle handle) {
  assert(handleMgr_->entryHandleToResourceIdHas(handle));
  const auto found = pendingOperations_.find(handle);
  if (found == pendingOperations_.end()) {
    SCRIVEL_TRACE(1, "TableImpl", " nothing to do for handle: ", handle);
  } else {
    const PendingOperation operation = std::move(found->second);
    pendingOperations_.erase(found);
    TheBatchStatus()->pendingOperationDel(handle);
    handleMgr_->reservationDel();  // its commit may be what failed
    SCRIVEL_TRACE(1, "TableImpl", " restore table entry for entryHandle: ", handle,
                  operation.type == PendingOperationType::entryAdd ? " add" : " delete");
    putBack(handle, operation);
  }
  // A new entry that was refused before it had a record leaves no handle behind either.
  if (!storedRecord(cacheKey(handle))) handleMgr_->freeEntryHandle(handle);
}

// In a batch the undoing is committed with the batch, or with it never was.
void TableImpl::putBack(EntryHandle handle, const PendingOperation& operation) {
  if (database_ && !database_->inBatch()) putBack_.push_back({handle, operation});
  const bool vanishes = operation.awaited && !operation.oldRow;
  std::string text = vanishes ? entryText(handle) : std::string();
  const uint64_t sequence = operation.awaited ? restoreRow(handle, operation) : 0;
  if (vanishes) failures_->undoneIs(handle, std::move(text), sequence);
  restoreRecord(handle, operation);
}

void TableImpl::commitPutBack() try {
  // Some may be of an earlier batch, whose undoing could not be stored.
  if (TheP4RtSystemStatus()->brokenInvariant()) return maybePutBackAgain();
  const auto trouble = database_->commit(Brine::Store::Filling::takeAll);
  if (!trouble) {
    putBack_.clear();
    return;
  }
  P4RuntimeBrokenInvariantException::handleException(P4RuntimeBrokenInvariantException(
      fmt::format("{} failed {} could not be put back as before: {}", putBack_.size(),
                  putBack_.size() == 1 ? "entry" : "entries", *trouble)));
} catch (const std::exception& e) {  // the switch is critical already
  SCRIVEL_TRACE(0, "TableImpl", " ", e.what());
}

void TableImpl::maybePutBackAgain() {
  if (putBack_.empty()) return;
  for (const auto& [handle, operation] : putBack_) {
    if (!tableInfo_->latticeTableInterface(operation.rid)) continue;  // rows went with their table
    if (operation.awaited) restoreRow(handle, operation);
    restoreRecord(handle, operation);
  }
  if (const auto trouble = database_->commit(Brine::Store::Filling::takeAll)) {
    throw Vela::Exception("the switch stays critical: failed entries can still not be put back: " +
                          *trouble);
  }
  putBack_.clear();
}

void TableImpl::commitOrThrow() {
  if (!database_) return;
  if (const auto trouble = database_->commit(Brine::Store::Filling::leaveRoomToUndo)) {
    handleMgr_->reservationDel();  // lost with the rest
    throw std::runtime_error(*trouble);
  }
  putBack_.clear();
}

// Answers the sequence number of the change; 0: the row was like that already.
uint64_t TableImpl::restoreRow(EntryHandle handle, const PendingOperation& operation) {
  const auto& interface = tableInfo_->latticeTableInterface(operation.rid);
  if (!interface || !interface->ready()) {
    throw std::runtime_error(
        fmt::format("the rows of {} are gone", tableInfo_->kindAndName(operation.rid)));
  }
  if (operation.oldRow) return interface->rowIs(*operation.oldRow, handle);
  return interface->rowDel(operation.newRow ? operation.newRow->key : operation.rowKey, handle);
}

// A store that took nothing of the batch has the former record still: it is not written again, for
// which there may be no room.
void TableImpl::restoreRecord(EntryHandle handle, const PendingOperation& operation) {
  if (!tableCache_) return;
  const CacheKey key{operation.rid, P4HandleMgr::cachedHandle(handle)};
  const auto stored = storedRecord(key);
  if (!operation.oldRecord) {
    if (stored) recordDel(key);
  } else if (key.rid.type == tableResource) {
    restoreTableRecord(key, operation);
  } else if (!stored || Brine::asText(*stored) != *operation.oldRecord) {
    const Brine::Bytes former = Brine::asBytes(*operation.oldRecord);
    const bool isMember = key.rid.type == actionProfileResource;
    isMember ? memberCache_->storedIs(key, former) : groupCache_->storedIs(key, former);
  }
  if (cachedMetadata(key) != operation.oldMetadata) {
    cachedMetadataIs(operation.rid, handle, operation.oldMetadata);
  }
}

void TableImpl::restoreTableRecord(const CacheKey& key, const PendingOperation& operation) {
  TableCacheEntry former;
  if (!former.deserialize(reinterpret_cast<const uint8_t*>(operation.oldRecord->data()),
                          operation.oldRecord->size())) {
    tableCache_->cacheDel(key);
    return;
  }
  former.entryState = EntryState::stable;
  if (tableCache_->cache(key) != former) tableCache_->cacheIs(former);
}

// A forwarding agent that outlived the former agent process reports as soon as it is attached.
void TableImpl::handleStrayReport(const Lattice::Report& report) {
  const EntryHandle handle = report.entryHandle;
  if (!earlyReports_.isOver()) {
    if (!earlyReports_.keep(report)) failures_->reportOnNoRow();
    return;
  }
  if (report.errorCode == 0) {
    if (!failures_->empty()) failures_->programmedIs(handle, report.subscriber, report.sequence);
    if (report.settles) failures_->removedIs(handle, report.sequence);
    return;
  }
  if (pendingOperations_.count(handle) > 0) return;  // of an earlier write of it
  const std::string entry = failedEntryText(report);
  if (entry.empty()) return failures_->reportOnNoRow();
  const std::string text = entry + failureText(report);
  if (failures_->failureIs(handle, report.subscriber, report.sequence, text)) {
    sayNotProgrammed(text);
  }
}

void TableImpl::doJudgeEarlyReports() {
  for (const EarlyReports::Kept& kept : earlyReports_.end()) handleStrayReport(kept.report());
}

size_t TableImpl::forgetReportsOf(uint64_t subscriber) {
  earlyReports_.forgetOf(subscriber);
  return failures_->agentDel(subscriber);
}

// Empty for a change that does not stand (any more), or never was.
std::string TableImpl::failedEntryText(const Lattice::Report& report) const {
  const EntryHandle handle = report.entryHandle;
  if (handleMgr_->entryHandleToResourceIdHas(handle)) {
    return rowSequence(handle) == report.sequence ? entryText(handle) : std::string();
  }
  const EntryFailures::Undone* undone = failures_->undone(handle);
  if (!undone || undone->sequence != report.sequence) return {};
  return undone->text + " (taken back, but not removed)";
}

void TableImpl::handleInStep(uint64_t sequence) {
  SCRIVEL_TRACE(1, "handleInStep", " sequence: ", sequence);
  failures_->inStepIs(sequence);
}

// Programmed or deleted: whatever failed before of the entry, also under a former handle.
void TableImpl::handleMended(EntryHandle handle) {
  failures_->failureDel(handle);
  const bool isEntry = handleMgr_->entryHandleToResourceId(handle).type == tableResource;
  if (isEntry && failures_->anyUnremoved()) failures_->programmedIs(entryText(handle));
}

std::string TableImpl::entryText(EntryHandle handle) const try {
  const ResourceId rid = handleMgr_->entryHandleToResourceId(handle);
  if (rid.type == actionProfileResource || rid.type == groupTableResource) {
    return profileObjectText(handle);
  }
  std::string text = tableInfo_->kindAndName(rid);
  const auto key = rowKey(handle);
  if (!key) return text;
  for (const auto& column : Lattice::keyTexts(tableInfo_->rowConstructor(rid)->type(), *key)) {
    text += fmt::format(", {}={}", column.name, column.text);
  }
  return text;
} catch (const Lattice::TypeError&) {  // the record is of another pipeline's table
  return fmt::format("entry {}", handle);
}

// Nothing where it cannot be told.
std::optional<std::string> TableImpl::rowKey(EntryHandle handle) const {
  const CacheKey cached = cacheKey(handle);
  const auto& constructor = tableInfo_->rowConstructor(cached.rid);
  if (!constructor || tableInfo_->unprogrammableHas(cached.rid)) return std::nullopt;
  RowFields fields;
  if (cached.rid.type != tableResource) {
    fields.id = static_cast<uint32_t>(cached.entryHandle);
    fields.append(&fields.id);
    return constructor->constructKey({fields.pointers.data(), fields.count});
  }
  const auto record = tableCache_ ? tableCache_->cache(cached) : std::nullopt;
  const FieldBitwidths& widths = tableInfo_->fieldBitwidths(cached.rid);
  if (!record || record->matchKeyData.size() != widths.encodedSize() ||
      record->matchKeyData.size() > RowFields::bytes) {
    return std::nullopt;
  }
  std::copy(record->matchKeyData.begin(), record->matchKeyData.end(), fields.keyBytes.begin());
  tableInfo_->onNewRowStarted();
  tableInfo_->extractFields(cached.rid, widths.slots(), fields.keyBytes.data(), fields.count,
                            fields.pointers.data());
  if (tableInfo_->priorityNeeded(cached.rid)) fields.append(&record->matchKeyPriority);
  return constructor->constructKey({fields.pointers.data(), fields.count});
}

// Of the last change of the handle's row; 0 when there is no such row.
uint64_t TableImpl::rowSequence(EntryHandle handle) const try {
  const auto& interface =
      tableInfo_->latticeTableInterface(handleMgr_->entryHandleToResourceId(handle));
  const auto key = interface && interface->ready() ? rowKey(handle) : std::nullopt;
  if (!key || interface->rowEntryHandle(*key) != handle) return 0;
  return interface->rowSequence(*key);
} catch (const Lattice::TypeError&) {
  return 0;
}

}  // namespace P4Runtime
