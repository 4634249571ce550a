// Writing entries: validation, conversion, rows and pending operations.
#include "P4Runtime/table/TableImpl.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "P4Runtime/companion/BatchStatus.h"
#include "P4Runtime/pi/P4RuntimeException.h"
#include "P4Runtime/pi/PiContext.h"
#include "P4Runtime/table/failures/EntryFailures.h"
#include "P4Runtime/table/rows/RowFields.h"
#include "PI/frontends/proto/device_mgr.h"
#include "PI/pi_extensions.h"
#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("TableImpl");

using pi::fe::proto::DeviceMgr;

constexpr size_t sizeLimit = 1024;  // bytes of a key or an action, exclusive

bool isCritical() {
  const auto* status = TheP4RtSystemStatus();
  return status && (status->critical() || status->brokenInvariant());
}

[[noreturn]] void refuse(ErrorCode code, const std::string& message, EntryHandle handle = 0) {
  throw P4RuntimeException(message, handle, pi_batch_current_offset(), code);
}

}  // namespace

TableImpl::TableImpl(Vela::Ptr<P4TableInfo> tableInfo, Vela::Ptr<P4HandleMgr> handleMgr,
                     Lattice::Database* database)
    : BatchEntries("tableImpl"),
      tableInfo_(std::move(tableInfo)),
      handleMgr_(std::move(handleMgr)),
      database_(database),
      rowFields_(std::make_unique<RowFields>()),
      failures_(Vela::make<EntryFailures>("failures")) {
  initializedChange_ = initializedAttribute().observe([this] { handleInitialized(); });
  constTablesChange_ =
      constTablesProgrammedAttribute().observe([this] { handleConstTablesProgrammed(); });
  operationIs({"triggerCriticalState", {}, [this](const auto&) {
                 triggerCriticalState();
                 return std::string("writes are refused from here on");
               }});
  operationIs({"revertCriticalState", {}, [this](const auto&) {
                 const bool wasCritical = isCritical();
                 revertCriticalState();
                 if (!wasCritical) return std::string("the switch was not in critical state");
                 if (restoreNeeded_) {
                   return std::string("writes are allowed again once the entries are restored");
                 }
                 return std::string(DeviceMgr::get_operation_permission_level() == nothingAllowed
                                        ? "writes are allowed again once a pipeline is in place"
                                        : "writes are allowed again");
               }});
}

TableImpl::~TableImpl() { handleMgr_->reservationHandlerIs(nullptr); }

Vela::Ptr<TableImpl> tableImplFactory(Vela::Ptr<P4TableInfo> tableInfo,
                                      Vela::Ptr<P4HandleMgr> handleMgr,
                                      Lattice::Database* database) {
  return Vela::make<TableImpl>(std::move(tableInfo), std::move(handleMgr), database);
}

// The texts name 2014 and "larger than" although 1024 bytes are refused already; controllers know
// them so.
void TableImpl::validateKeySize(size_t bytes) const {
  if (bytes >= sizeLimit) {
    refuse(ErrorCode::cannotProgram, "Key size larger than 2014 not supported");
  }
}

void TableImpl::validateActionSize(size_t bytes) const {
  if (bytes >= sizeLimit) {
    refuse(ErrorCode::cannotProgram, "Action size larger than 1024 not supported");
  }
}

void TableImpl::validateKeyAndActionSize(size_t keyBytes, size_t actionBytes) const {
  validateKeySize(keyBytes);
  validateActionSize(actionBytes);
}

void TableImpl::maybeCheckTableSizeLimit(const ResourceId& rid, EntryHandle handle) const {
  if (!tableSizeCheckEnabled() || restoring_) return;
  const uint32_t most = tableInfo_->maxTableSize(rid);
  if (most == 0) return;
  const auto& interface = tableInfo_->latticeTableInterface(rid);
  if (!interface || interface->rowCount() != most) return;  // above it: deliberately let through
  refuse(ErrorCode::tableFull, fmt::format("table id {} size limit reached", rid.id), handle);
}

TableImpl::Table TableImpl::requireTable(const ResourceId& rid) const {
  if (cacheLetGo_) {
    refuse(ErrorCode::notReady, "the agent is disabled; write again once it is enabled");
  }
  if (TheBatchStatus()->inProgress() && isCritical()) {
    refuse(ErrorCode::inconsistentState, "WRITE operation is not allowed due to critical state");
  }
  if (restoreNeeded_ && !restoring_) {
    refuse(ErrorCode::notReady,
           "the surviving entries have not been restored; call revertCriticalState, which restores "
           "them");
  }
  if (const std::string& why = tableInfo_->unprogrammable(rid); !why.empty()) {
    refuse(ErrorCode::cannotProgram,
           fmt::format("{} cannot be programmed: {}", tableInfo_->kindAndName(rid), why));
  }
  const auto& interface = tableInfo_->latticeTableInterface(rid);
  const auto& constructor = tableInfo_->rowConstructor(rid);
  if (interface && !interface->ready()) {  // no word of the pipeline against the entry
    refuse(ErrorCode::notReady,
           fmt::format("the rows of {} are not ready; try again", tableInfo_->kindAndName(rid)));
  }
  if (!interface || !constructor) {
    refuse(ErrorCode::cannotProgram,
           fmt::format("{} is not part of the pipeline's device configuration; build the pipeline "
                       "file anew from its P4Info",
                       tableInfo_->kindAndName(rid)));
  }
  return {rid, tableInfo_->fieldBitwidths(rid), *constructor, *interface,
          tableInfo_->priorityNeeded(rid)};
}

void TableImpl::requireSize(const Table& table, const char* what, size_t size,
                            size_t expected) const {
  if (size == expected) return;
  refuse(ErrorCode::invalidArgument,
         fmt::format("table {}: {} has {} bytes instead of {}", tableInfo_->nameOf(table.rid), what,
                     size, expected));
}

RowFields& TableImpl::startRow(const Table& table, size_t keySize, const char* key) {
  requireSize(table, "the match key", keySize, table.widths.encodedSize());
  RowFields& fields = *rowFields_;
  fields.count = 0;
  std::copy_n(key, keySize, fields.keyBytes.data());  // conversion changes them in place
  tableInfo_->onNewRowStarted();
  tableInfo_->extractFields(table.rid, table.widths.slots(), fields.keyBytes.data(), fields.count,
                            fields.pointers.data());
  return fields;
}

void TableImpl::extractActionFields(const ResourceId& tableRid, uint32_t actionId,
                                    size_t actionSize, uint8_t* action, uint32_t& count,
                                    const uint8_t** fields) {
  if (!tableInfo_->actionIdColForTable(tableRid).actionIdHas(actionId)) {
    refuse(ErrorCode::invalidAction, "no known action id found");
  }
  const ResourceId actionRid{actionResource, actionId};
  if (const std::string& why = tableInfo_->unprogrammable(actionRid); !why.empty()) {
    refuse(ErrorCode::cannotProgram,
           fmt::format("{} of {} cannot be programmed: {}", tableInfo_->kindAndName(actionRid),
                       tableInfo_->kindAndName(tableRid), why));
  }
  const FieldBitwidths& widths = tableInfo_->fieldBitwidths(actionRid);
  if (actionSize != widths.encodedSize()) {
    refuse(ErrorCode::invalidArgument,
           fmt::format("action {}: its data has {} bytes instead of {}",
                       tableInfo_->nameOf(actionRid), actionSize, widths.encodedSize()));
  }
  rowFields_->actionId = actionId;
  fields[count++] = reinterpret_cast<const uint8_t*>(&rowFields_->actionId);
  tableInfo_->extractFields(actionRid, widths.slots(), action, count, fields);
}

// The parameters of a direct meter and a direct counter: whether one was given, then its values.
struct TableImpl::MetersOf {
  uint8_t meterGiven = 0;
  uint8_t counterGiven = 0;
  Vela::Ptr<P4MeterConfig> defaultMeter;
  Vela::Ptr<P4CounterData> defaultCounter;
};

void TableImpl::appendMeters(const ResourceId& rid, const P4MeterConfig* meter,
                             const P4CounterData* counter, MetersOf& meters,
                             RowFields& fields) const {
  if (tableInfo_->hasDirectMeter(rid)) {
    meters.meterGiven = meter != nullptr;
    meters.defaultMeter = p4MeterConfigFactory(0, 0, 0, 0, MeterUnitBytes, MeterTypeDefault);
    fields.append(&meters.meterGiven);
    (meter ? meter : meters.defaultMeter.get())->stuffFields(fields.count, fields.pointers.data());
  }
  if (tableInfo_->hasDirectCounter(rid)) {
    meters.counterGiven = counter != nullptr;
    meters.defaultCounter = p4CounterDataFactory(0, 0);
    fields.append(&meters.counterGiven);
    (counter ? counter : meters.defaultCounter.get())
        ->stuffFields(fields.count, fields.pointers.data());
  }
}

void TableImpl::appendPriority(const Table& table, const uint32_t& priority,
                               RowFields& fields) const {
  if (table.needsPriority) {
    if (priority == 0) {
      SCRIVEL_TRACE(1, "TableImpl", " unexpected 0 priority for resource ", table.rid.id);
    }
    fields.append(&priority);
  }
}

// Common to both kinds of entry; `appendAction` gives the row its action or its member or group.
template <typename AppendAction>
EntryHandle TableImpl::addEntry(uint32_t tableId, uint32_t priority, size_t keySize,
                                const char* key, const P4MeterConfig* meter,
                                const P4CounterData* counter, AppendAction appendAction) {
  const Table table = requireTable({tableResource, tableId});
  bool isNew = false;
  const EntryHandle handle =
      handleMgr_->getOrCreateTableEntryHandle(tableId, keySize, key, priority, &isNew);
  try {
    if (isNew) maybeCheckTableSizeLimit(table.rid, handle);  // a change of an entry always fits
    RowFields& fields = startRow(table, keySize, key);
    appendAction(table, fields);
    MetersOf meters;
    appendMeters(table.rid, meter, counter, meters, fields);
    appendPriority(table, priority, fields);
    return writeEntry(table, handle, isNew, fields);
  } catch (const P4RuntimeException& e) {
    // With the handle in it, the exception's handler puts the entry back and frees the handle.
    if (isNew && e.entryHandle == 0) handleMgr_->freeTableEntryHandle(handle);
    throw;
  }
}

EntryHandle TableImpl::tableEntryAdd(uint32_t tableId, uint32_t priority, size_t keySize,
                                     const char* key, uint32_t actionId, size_t actionSize,
                                     const char* action, const P4MeterConfig* meter,
                                     const P4CounterData* counter) {
  validateKeyAndActionSize(keySize, actionSize);
  return addEntry(tableId, priority, keySize, key, meter, counter,
                  [&](const Table& table, RowFields& fields) {
                    std::copy_n(action, actionSize, fields.actionBytes.data());
                    extractActionFields(table.rid, actionId, actionSize, fields.actionBytes.data(),
                                        fields.count, fields.pointers.data());
                  });
}

EntryHandle TableImpl::indirectTableEntryAdd(uint32_t tableId, uint32_t priority, size_t keySize,
                                             const char* key, const char* handle, size_t handleSize,
                                             bool isGroup, const P4MeterConfig* meter,
                                             const P4CounterData* counter) {
  validateKeySize(keySize);
  return addEntry(tableId, priority, keySize, key, meter, counter,
                  [&](const Table&, RowFields& fields) {
                    // The lower half of a handle is the id that keys the member's or group's row.
                    uint64_t value = 0;
                    std::memcpy(&value, handle, std::min(handleSize, sizeof value));
                    fields.indirectId = static_cast<uint32_t>(value);
                    fields.isGroup = isGroup;
                    fields.append(&fields.indirectId);
                    fields.append(&fields.isGroup);
                  });
}

// Where a row holds no priority, entries that differ in nothing else would share one.
void TableImpl::requireOwnRow(const Table& table, const std::string& rowKey,
                              EntryHandle handle) const {
  const EntryHandle owner = table.interface.rowEntryHandle(rowKey);
  if (owner == handle || !handleMgr_->entryHandleToResourceIdHas(owner)) return;
  refuse(ErrorCode::alreadyExists,
         fmt::format("table {} holds an entry with this match and another priority; it can hold "
                     "only one of them, so delete that entry first",
                     tableInfo_->nameOf(table.rid)));
}

EntryHandle TableImpl::writeEntry(const Table& table, EntryHandle handle, bool isNew,
                                  const RowFields& fields) {
  SCRIVEL_TRACE(7, "TableImpl", "Calling rowConstructor for tableId: ", table.rid.id);
  try {
    Lattice::Row row = table.constructor.construct({fields.pointers.data(), fields.count});
    auto oldRow = table.interface.row(row.key);
    if (isNew && oldRow) requireOwnRow(table, row.key, handle);
    if (restoring_) {
      // What a direct meter was set to stands only in the surviving row.
      const bool keep =
          oldRow && !rewritten_.contains(handle) &&
          table.interface.rowEntryHandle(row.key) == handle &&
          (tableInfo_->hasDirectMeter(table.rid) || tableInfo_->hasDirectCounter(table.rid));
      if (!keep) table.interface.rowIs(row, handle);
      return handle;
    }
    PendingOperation& operation =
        newPendingOperation(handle, PendingOperationType::entryAdd, table.rid, std::move(oldRow),
                            std::move(row), {}, isNew);
    awaitReport(handle, operation, table.interface.rowIs(*operation.newRow, handle));
    return handle;
  } catch (const P4RuntimeException&) {
    throw;
  } catch (const Lattice::TypeError& e) {
    refuse(ErrorCode::internalError,
           fmt::format("{}: {}", tableInfo_->kindAndName(table.rid), e.what()));
  } catch (const std::invalid_argument& e) {  // a key that the store cannot hold
    refuse(ErrorCode::cannotProgram,
           fmt::format("{}: {}", tableInfo_->kindAndName(table.rid), e.what()), handle);
  } catch (const std::exception& e) {  // no room or no memory, which says nothing of the entry
    refuse(ErrorCode::outOfResources, e.what(), handle);
  }
}

EntryHandle TableImpl::tableEntryDeleteWithKey(uint32_t tableId, uint32_t priority, size_t keySize,
                                               const char* key) {
  validateKeySize(keySize);
  const Table table = requireTable({tableResource, tableId});
  RowFields& fields = startRow(table, keySize, key);
  if (!table.needsPriority && priority != 0) {
    SCRIVEL_TRACE(1, "TableImpl", " unexpected non-zero priority for resource ", tableId);
  }
  appendPriority(table, priority, fields);
  const std::string rowKey = table.constructor.constructKey({fields.pointers.data(), fields.count});
  const EntryHandle handle =
      handleMgr_->getEntryHandleFromMatchKey(tableId, keySize, key, priority);
  if (handle == 0) {
    refuse(ErrorCode::invalidKey,
           fmt::format("table {} has no entry with this match key", tableInfo_->nameOf(table.rid)));
  }
  return deleteRow(table, handle, rowKey);
}

EntryHandle TableImpl::deleteRow(const Table& table, EntryHandle handle,
                                 const std::string& rowKey) {
  try {
    PendingOperation& operation =
        newPendingOperation(handle, PendingOperationType::entryDelete, table.rid,
                            table.interface.row(rowKey), std::nullopt, rowKey, false);
    awaitReport(handle, operation, table.interface.rowDel(rowKey, handle));
  } catch (const std::exception& e) {  // no room or no memory; the row may be gone already
    refuse(ErrorCode::outOfResources, e.what(), handle);
  }
  return handle;
}

// A second write of an entry in one batch keeps what stood before the first. An operation that does
// not know what stood before would put back nothing, so there is none.
PendingOperation& TableImpl::newPendingOperation(EntryHandle handle, PendingOperationType type,
                                                 const ResourceId& rid,
                                                 std::optional<Lattice::Row> oldRow,
                                                 std::optional<Lattice::Row> newRow,
                                                 std::string rowKey, bool isNew) {
  const auto [slot, fresh] = pendingOperations_.try_emplace(handle);
  PendingOperation& operation = slot->second;
  if (fresh) {
    operation.rid = rid;
    operation.oldRow = std::move(oldRow);
    try {
      if (!isNew) rememberRecord(handle, operation);
    } catch (...) {
      pendingOperations_.erase(slot);
      throw;
    }
  }
  operation.type = type;
  operation.newRow = std::move(newRow);
  operation.rowKey = std::move(rowKey);
  operation.newRecord.clear();
  TheBatchStatus()->newEntryHandleForBatchOffset(handle, pi_batch_current_offset());
  return operation;
}

void TableImpl::awaitReport(EntryHandle handle, PendingOperation& operation, uint64_t sequence) {
  if (sequence == 0) return;
  operation.awaited = true;
  TheBatchStatus()->pendingOperationIs(handle, sequence);
}

size_t TableImpl::numPendingEntries() const {
  return std::count_if(pendingOperations_.begin(), pendingOperations_.end(),
                       [](const auto& one) { return one.second.awaited; });
}

void TableImpl::clearPendingOperations() {
  pendingOperations_.clear();
  TheBatchStatus()->pendingOperationDelAll();
}

void TableImpl::handleConstTablesProgrammed() {
  if (!constTablesProgrammed()) return;
  SCRIVEL_TRACE(1, "TableImpl",
                " Finished programming const entries - num:: ", pendingOperations_.size());
  clearPendingOperations();
}

TableImpl* TheTableImpl() { return ThePiContext()->tableImpl().get(); }

void TableImpl::triggerCriticalState() {
  try {
    throw P4RuntimeBrokenInvariantException("WRITE operation is not allowed due to critical state");
  } catch (const P4RuntimeBrokenInvariantException& e) {
    P4RuntimeBrokenInvariantException::handleException(e);
  }
}

void TableImpl::revertCriticalState() {
  maybePutBackAgain();
  if (restoreNeeded_) restoreRequestsIs(restoreRequests() + 1);
  P4RuntimeBrokenInvariantException::revertCriticalState();
}

}  // namespace P4Runtime
