// After a restart: gives the table entries that survived in the cache back to the handle manager,
// the tables and the PI library.
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "P4Runtime/pi/P4RuntimeException.h"
#include "P4Runtime/pi/PiContext.h"
#include "P4Runtime/table/Restoring.h"
#include "P4Runtime/table/TableImpl.h"
#include "P4Runtime/table/failures/EntryFailures.h"
#include "P4Runtime/table/records/CacheWalk.h"
#include "P4Runtime/table/rows/RowFields.h"
#include "PI/int/pi_int.h"
#include "PI/pi.h"
#include "PI/pi_extensions.h"
#include "PI/pi_meter.h"
#include "platform/lattice/DirectColumns.h"
#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("TableImpl");

constexpr size_t mostSaid = 20;  // of what could not be restored

char* chars(std::span<const uint8_t> bytes) {
  return const_cast<char*>(reinterpret_cast<const char*>(bytes.data()));
}

}  // namespace

// One pass over the table cache. What is to be removed, or to become stable, is done afterwards.
class TableRestorer {
 public:
  explicit TableRestorer(TableImpl& tableImpl)
      : tableImpl_(tableImpl), p4info_(pi_get_device_p4info(tableImpl.deviceId())) {}

  void restoreAll(RestoreCounts* counts) {
    forEachCopied(*tableImpl_.tableCache(),
                  [this](Brine::Bytes key, Brine::Bytes stored) { restore(key, stored); });
    for (const CacheKey& key : unstable_) markStable(key);
    for (const std::string& key : deleted_) forget(key);
    for (const std::string& key : unusable_) forget(key);
    counts->entries += restored_;
    std::ranges::move(reasons_, std::back_inserter(counts->unusable));
  }

 private:
  void restore(Brine::Bytes key, Brine::Bytes stored) {
    const auto record = TableRecordView::of(stored);
    if (record && record->entryState == EntryState::pendingToBeDeleted) {
      finishDeletion(key, *record);
      return;
    }
    bound_ = 0;
    const std::string why = record ? restored(*record) : "unreadable record";
    if (why.empty()) {
      ++restored_;
      if (record->entryState != EntryState::stable) unstable_.push_back(record->key);
      return;
    }
    refuse(key, why);
  }

  // The record, and the row if there is one, go once the pass is through.
  void refuse(Brine::Bytes key, const std::string& why) {
    const CacheKey of = cacheKeyOf(key);
    SCRIVEL_TRACE(0, "TableImpl", " cannot restore table entry[ rid:", of.rid.id,
                  " entryHandle:", of.entryHandle, " ]: ", why);
    unusable_.emplace_back(Brine::asText(key));
    const std::string text =
        bound_ != 0 ? tableImpl_.entryText(bound_)
                    : fmt::format("{}, entry handle {}", tableImpl_.tableInfo().kindAndName(of.rid),
                                  of.entryHandle);
    reasons_.push_back(fmt::format("{}: {}", text, why));
    tableImpl_.handleMgr().freeTableEntryHandle(bound_);
  }

  // The row went with the batch that asked for it; bringing the entry back would leave that batch
  // half done.
  void finishDeletion(Brine::Bytes key, const TableRecordView& record) {
    SCRIVEL_TRACE(1, "TableImpl", " finishing the deletion of entry[ rid:", record.key.rid.id,
                  " entryHandle:", record.key.entryHandle, " ]");
    tableImpl_.handleMgr().reserveUpTo(record.key.entryHandle);
    tableImpl_.handleMgr().freeTableEntryHandle(record.key.entryHandle);  // of this very process
    deleted_.emplace_back(Brine::asText(key));
  }

  // Empty when the entry is back, else why not.
  std::string restored(const TableRecordView& record) {
    SCRIVEL_TRACE(6, "TableImpl", " Restoring table entry[ rid:", record.key.rid.id,
                  " entryHandle:", record.key.entryHandle, " ]");
    P4HandleMgr& handles = tableImpl_.handleMgr();
    const uint32_t tableId = record.key.rid.id;
    if (record.key.rid.type != tableResource) return "not a record of a table";
    if (record.key.entryHandle == 0 || record.key.entryHandle > largestEntryHandle) {
      return "its handle is none that was ever given out";
    }
    handles.reserveUpTo(record.key.entryHandle);
    if (!handles.restoreTableEntryHandle(tableId, record.key.entryHandle,
                                         record.matchKeyData.size(), chars(record.matchKeyData),
                                         record.matchKeyPriority)) {
      return "its handle or match key is another entry's";
    }
    bound_ = record.key.entryHandle;
    std::string why;
    try {
      program(record);
      if (isTakenBack(handBack(record))) return {};
      why = "the pipeline does not accept it";
      removeRow(record);
    } catch (const P4RuntimeException& e) {
      if (!isProofAgainstRecord(e)) throw;
      why = e.what();
    } catch (const Lattice::TypeError& e) {
      why = e.what();
    }
    return why;
  }

  std::string rowKey(const TableImpl::Table& table, const TableRecordView& record) {
    RowFields& fields =
        tableImpl_.startRow(table, record.matchKeyData.size(), chars(record.matchKeyData));
    tableImpl_.appendPriority(table, record.matchKeyPriority, fields);
    return table.constructor.constructKey({fields.pointers.data(), fields.count});
  }

  // The row may have been written just now, so that it is not among the committed ones yet.
  void removeRow(const TableRecordView& record) {
    const TableImpl::Table table = tableImpl_.requireTable(record.key.rid);
    table.interface.rowDel(rowKey(table, record), record.key.entryHandle);
  }

  // What the controller set the entry's meter to stands in its row alone. False when it set none.
  bool meterOf(const TableRecordView& record, pi_meter_spec_t* spec) {
    if (!tableImpl_.tableInfo().hasDirectMeter(record.key.rid)) return false;
    const TableImpl::Table table = tableImpl_.requireTable(record.key.rid);
    const auto row = table.interface.row(rowKey(table, record));
    const auto meter =
        row ? Lattice::meterOfRow(table.constructor.type(), row->value) : std::nullopt;
    if (!meter || !meter->given) return false;
    spec->cir = meter->cir;
    spec->cburst = static_cast<uint32_t>(std::min<uint64_t>(meter->cburst, UINT32_MAX));
    spec->pir = meter->pir;
    spec->pburst = static_cast<uint32_t>(std::min<uint64_t>(meter->pburst, UINT32_MAX));
    return true;
  }

  void program(const TableRecordView& record) {
    const uint32_t tableId = record.key.rid.id;
    if (record.entryType == TableCacheEntry::directEntry) {
      tableImpl_.tableEntryAdd(
          tableId, record.matchKeyPriority, record.matchKeyData.size(), chars(record.matchKeyData),
          record.actionId, record.actionData.size(), chars(record.actionData), nullptr, nullptr);
    } else {
      const uint64_t handle = record.indirectHandle;
      tableImpl_.indirectTableEntryAdd(tableId, record.matchKeyPriority, record.matchKeyData.size(),
                                       chars(record.matchKeyData),
                                       reinterpret_cast<const char*>(&handle), sizeof handle,
                                       handle >> 32 == 1, nullptr, nullptr);
    }
  }

  pi_status_t handBack(const TableRecordView& record) {
    pi_match_key_t matchKey{};
    matchKey.p4info = p4info_;
    matchKey.table_id = record.key.rid.id;
    matchKey.priority = record.matchKeyPriority;
    matchKey.data_size = record.matchKeyData.size();
    matchKey.data = chars(record.matchKeyData);
    pi_action_data_t action{};
    action.p4info = p4info_;
    action.action_id = record.actionId;
    action.data_size = record.actionData.size();
    action.data = chars(record.actionData);
    pi_table_entry_t entry{};
    entry.entry_type = static_cast<pi_action_entry_type_t>(record.entryType);
    if (record.entryType == TableCacheEntry::directEntry) {
      entry.entry.action_data = &action;
    } else {
      entry.entry.indirect_handle = record.indirectHandle;
    }
    pi_meter_spec_t meter{};
    pi_direct_res_config_one_t one{tableImpl_.tableInfo().directMeterOf(record.key.rid), &meter};
    const pi_direct_res_config_t direct{1, &one};
    if (meterOf(record, &meter)) entry.direct_res_config = &direct;
    const std::string metadata = tableImpl_.cachedMetadata(record.key);
    return pi_restore_table_entry_state(tableImpl_.deviceId(), record.key.rid.id, &matchKey, &entry,
                                        record.key.entryHandle, record.controllerMetadata,
                                        metadata.data(), metadata.size());
  }

  // The controller's metadata stand under the same key.
  void forget(const std::string& key) {
    tableImpl_.tableCache()->storedKeyDel(Brine::asBytes(key));
    tableImpl_.database_->store().erase(*tableImpl_.metadataTable_, Brine::asBytes(key));
    tableImpl_.constantEntries_.forget(cacheKeyOf(Brine::asBytes(key)));
  }

  void markStable(const CacheKey& key) {
    auto record = tableImpl_.tableCache()->cache(key);
    if (!record) return;
    record->entryState = EntryState::stable;
    tableImpl_.tableCache()->cacheIs(*record);
  }

  TableImpl& tableImpl_;
  const pi_p4info_t* p4info_;
  size_t restored_ = 0;
  std::vector<CacheKey> unstable_;
  std::vector<std::string> deleted_;   // stored keys
  std::vector<std::string> unusable_;  // stored keys
  std::vector<std::string> reasons_;   // for each of them
  EntryHandle bound_ = 0;              // to the record being restored; 0: none
};

void TableImpl::restoreCachedEntries() {
  // Without its tables every record would look unusable.
  if (tableInfo_->tableInfoState() != P4TableInfoState::tableInfoReady) {
    throw std::runtime_error("the pipeline is not ready");
  }
  // Without the records every row would look like one that no entry stands for.
  if (cacheLetGo_) throw std::runtime_error("the agent is disabled");
  restored_ = {};
  putBack_.clear();  // from here on the front end has what the store has
  constantEntries_.followPipeline();
  commitOrThrow();  // the passes below read what is committed
  restoreActionMemberCachedEntries();
  restoreActionGroupCachedEntries();
  restoreTableCachedEntries();
  removeDamagedRecords();
  restored_.rows = removeOrphanedRows();
  removeDamagedRecords();  // rows that only a look at all of them has found
  rewritten_.clear();
  failures_->notRestoredAre(restored_.unusable);
  sayWhatWasRestored();
  doJudgeEarlyReports();
}

void TableImpl::sayWhatWasRestored() const {
  if (restored_ == RestoreCounts{}) return;
  std::string text = fmt::format("korvel: restored {} entries", restored_.entries);
  if (restored_.members + restored_.groups > 0) {
    text += fmt::format(", {} members and {} groups", restored_.members, restored_.groups);
  }
  if (!restored_.unusable.empty()) {
    text +=
        fmt::format("; removed {} that the pipeline has no place for", restored_.unusable.size());
  }
  if (restored_.rows > 0) {
    text += fmt::format("; removed {} rows that no entry stood for", restored_.rows);
  }
  for (size_t i = 0; i < restored_.unusable.size() && i < mostSaid; ++i) {
    text += "\nkorvel: not restored: " + restored_.unusable[i];
  }
  if (restored_.unusable.size() > mostSaid) {
    text += fmt::format("\nkorvel: not restored: {} more; see p4runtime/status/failures",
                        restored_.unusable.size() - mostSaid);
  }
  fmt::print(stderr, "{}\n", text);
}

void TableImpl::restoreTableCachedEntries() {
  if (!tableCache_) return;
  const Restoring restoring(restoring_);
  TableRestorer(*this).restoreAll(&restored_);
}

// They would otherwise stay in the forwarding plane for good. Answers how many there were.
size_t TableImpl::removeOrphanedRows() {
  size_t removed = 0;
  for (const auto& [rid, interface] : tableInfo_->latticeTableInterfaceCollection().values()) {
    if (!interface->ready()) continue;
    for (const std::string& key : orphanedRows(rid, *interface)) {
      // The restore may have just written it anew, for an entry that stands.
      if (anyEntryFor(rid, interface->rowEntryHandle(key))) continue;
      SCRIVEL_TRACE(0, "TableImpl", " no entry stands for a row of ", interface->tableName());
      if (interface->rowDel(key, 0) != 0) ++removed;
    }
  }
  return removed;
}

bool TableImpl::anyEntryFor(const ResourceId& rid, EntryHandle handle) const {
  return handleMgr_->entryHandleToResourceId(handle) == rid ||
         storedRecord({rid, P4HandleMgr::cachedHandle(handle)});
}

// Committed rows whose entry has neither handle nor record. A stored row begins with the entry's
// handle.
std::vector<std::string> TableImpl::orphanedRows(const ResourceId& rid,
                                                 const Lattice::ArTableInterface& interface) {
  std::vector<std::string> keys;
  Brine::Store& store = database_->store();
  store.forEach(store.table("row/" + interface.tableName()),
                [&](Brine::Bytes key, Brine::Bytes row) {
                  EntryHandle handle = 0;
                  if (row.size() >= sizeof handle) std::memcpy(&handle, row.data(), sizeof handle);
                  if (!anyEntryFor(rid, handle)) keys.emplace_back(Brine::asText(key));
                  return true;
                });
  return keys;
}

}  // namespace P4Runtime
