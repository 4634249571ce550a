// After a restart: gives the entries that survived in the cache back to the handle manager, the
// tables and the PI library.
#include <fmt/format.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "P4Runtime/pi/P4RuntimeException.h"
#include "P4Runtime/pi/PiContext.h"
#include "P4Runtime/table/RowFields.h"
#include "P4Runtime/table/TableImpl.h"
#include "PI/int/pi_int.h"
#include "PI/pi.h"
#include "PI/pi_extensions.h"
#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("TableImpl");

char* chars(std::span<const uint8_t> bytes) {
  return const_cast<char*>(reinterpret_cast<const char*>(bytes.data()));
}

}  // namespace

// One pass over the table cache. The store must not be written while it is walked, so records are
// copied out by the thousand; what is to be removed, or to become stable, is done afterwards.
class TableRestorer {
 public:
  explicit TableRestorer(TableImpl& tableImpl)
      : tableImpl_(tableImpl), p4info_(pi_get_device_p4info(tableImpl.deviceId())) {}

  void restoreAll() {
    std::string from;
    while (readChunk(from)) {
      for (const auto& [key, stored] : chunk_) {
        restore(Brine::asBytes(key), Brine::asBytes(stored));
      }
      from = chunk_.back().first + '\0';
    }
    for (const CacheKey& key : unstable_) markStable(key);
    for (const std::string& key : deleted_) forget(key);
    for (const std::string& key : unusable_) forget(key);
    if (!unusable_.empty()) removeOrphanedRows();
    if (restored_ > 0 || !unusable_.empty()) {
      fmt::print(stderr, "korvel: restored {} entries{}\n", restored_,
                 unusable_.empty() ? ""
                                   : fmt::format("; removed {} that the pipeline has no place for",
                                                 unusable_.size()));
    }
  }

 private:
  static constexpr size_t chunkSize = 4096;
  // Handles are counted up from 1; one beyond this would not leave room to count on.
  static constexpr EntryHandle largestHandle = EntryHandle{1} << 62;

  // False at the end of the cache.
  bool readChunk(const std::string& from) {
    chunk_.clear();
    tableImpl_.tableCache()->forEach(
        [this](Brine::Bytes key, Brine::Bytes stored) {
          chunk_.emplace_back(Brine::asText(key), Brine::asText(stored));
          return chunk_.size() < chunkSize;
        },
        Brine::asBytes(from));
    return !chunk_.empty();
  }

  void restore(Brine::Bytes key, Brine::Bytes stored) {
    const auto record = TableRecordView::of(stored);
    if (record && record->entryState == EntryState::pendingToBeDeleted) {
      finishDeletion(key, *record);
      return;
    }
    const std::string why = record ? restored(*record) : "unreadable record";
    if (why.empty()) {
      ++restored_;
      if (record->entryState != EntryState::stable) unstable_.push_back(record->key);
      return;
    }
    SCRIVEL_TRACE(0, "TableImpl",
                  " cannot restore table entry[ rid:", record ? record->key.rid.id : 0,
                  " entryHandle:", record ? record->key.entryHandle : 0, " ]: ", why);
    unusable_.emplace_back(Brine::asText(key));
  }

  // The row went with the batch that asked for it; bringing the entry back would leave that batch
  // half done.
  void finishDeletion(Brine::Bytes key, const TableRecordView& record) {
    SCRIVEL_TRACE(1, "TableImpl", " finishing the deletion of entry[ rid:", record.key.rid.id,
                  " entryHandle:", record.key.entryHandle, " ]");
    tableImpl_.handleMgr().reserveUpTo(record.key.entryHandle);
    deleted_.emplace_back(Brine::asText(key));
  }

  // Empty when the entry is back, else why not.
  std::string restored(const TableRecordView& record) {
    SCRIVEL_TRACE(6, "TableImpl", " Restoring table entry[ rid:", record.key.rid.id,
                  " entryHandle:", record.key.entryHandle, " ]");
    P4HandleMgr& handles = tableImpl_.handleMgr();
    const uint32_t tableId = record.key.rid.id;
    if (record.key.rid.type != tableResource) return "not a record of a table";
    if (record.key.entryHandle == 0 || record.key.entryHandle > largestHandle) {
      return "its handle is none that was ever given out";
    }
    handles.reserveUpTo(record.key.entryHandle);
    if (!handles.restoreTableEntryHandle(tableId, record.key.entryHandle,
                                         record.matchKeyData.size(), chars(record.matchKeyData),
                                         record.matchKeyPriority)) {
      return "its handle or match key is another entry's";
    }
    std::string why;
    try {
      program(record);
      if (handedBack(record)) return {};
      why = "the pipeline does not accept it";
      removeRow(record);
    } catch (const P4RuntimeException& e) {
      if (e.errorCode == ErrorCode::outOfResources) throw;  // the record is good, the store is not
      why = e.what();
    }
    handles.freeTableEntryHandle(record.key.entryHandle);
    return why;
  }

  // The row may have been written just now, so that it is not among the committed ones yet.
  void removeRow(const TableRecordView& record) {
    const TableImpl::Table table = tableImpl_.requireTable(record.key.rid);
    RowFields& fields =
        tableImpl_.startRow(table, record.matchKeyData.size(), chars(record.matchKeyData));
    tableImpl_.appendPriority(table, record.matchKeyPriority, fields);
    table.interface.rowDel(table.constructor.constructKey({fields.pointers.data(), fields.count}),
                           record.key.entryHandle);
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

  bool handedBack(const TableRecordView& record) {
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
    const std::string metadata = tableImpl_.cachedMetadata(record.key);
    return pi_restore_table_entry_state(tableImpl_.deviceId(), record.key.rid.id, &matchKey, &entry,
                                        record.key.entryHandle, record.controllerMetadata,
                                        metadata.data(), metadata.size()) == PI_STATUS_SUCCESS;
  }

  // The controller's metadata stand under the same key.
  void forget(const std::string& key) {
    tableImpl_.tableCache()->storedKeyDel(Brine::asBytes(key));
    tableImpl_.database_->store().erase(*tableImpl_.metadataTable_, Brine::asBytes(key));
  }

  void markStable(const CacheKey& key) {
    auto record = tableImpl_.tableCache()->cache(key);
    if (!record) return;
    record->entryState = EntryState::stable;
    tableImpl_.tableCache()->cacheIs(*record);
  }

  // Rows whose record could not be used would otherwise stay in the forwarding plane for good.
  void removeOrphanedRows() {
    for (const auto& [rid, interface] :
         tableImpl_.tableInfo().latticeTableInterfaceCollection().values()) {
      if (rid.type != tableResource || !interface->ready()) continue;
      for (const std::string& key : orphanedRows(*interface)) interface->rowDel(key, 0);
    }
  }

  // A stored row begins with the handle of its entry.
  std::vector<std::string> orphanedRows(const Lattice::ArTableInterface& interface) {
    std::vector<std::string> keys;
    Brine::Store& store = tableImpl_.database_->store();
    store.forEach(store.table("row/" + interface.tableName()),
                  [&](Brine::Bytes key, Brine::Bytes row) {
                    EntryHandle handle = 0;
                    if (row.size() >= sizeof handle) {
                      std::memcpy(&handle, row.data(), sizeof handle);
                    }
                    if (!tableImpl_.handleMgr().entryHandleToResourceIdHas(handle)) {
                      keys.emplace_back(Brine::asText(key));
                    }
                    return true;
                  });
    return keys;
  }

  TableImpl& tableImpl_;
  const pi_p4info_t* p4info_;
  std::vector<std::pair<std::string, std::string>> chunk_;  // stored keys and records
  size_t restored_ = 0;
  std::vector<CacheKey> unstable_;
  std::vector<std::string> deleted_;   // stored keys
  std::vector<std::string> unusable_;  // stored keys
};

void TableImpl::restoreCachedEntries() { restoreTableCachedEntries(); }

void TableImpl::restoreTableCachedEntries() {
  if (!tableCache_) return;
  struct Restoring {
    bool& is;
    explicit Restoring(bool& is) : is(is) { is = true; }
    ~Restoring() { is = false; }
  } const restoring(restoring_);
  TableRestorer(*this).restoreAll();
}

}  // namespace P4Runtime
