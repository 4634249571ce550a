#include "P4Runtime/table/undo/EntryUndo.h"

#include <fmt/format.h>

#include <stdexcept>
#include <utility>

#include "platform/vela/Exception.h"

namespace P4Runtime {

void EntryUndo::putBack(EntryHandle handle, const PendingOperation& operation) {
  if (database_ && !database_->inBatch()) putBack_.push_back({handle, operation});
  const bool vanishes = operation.awaited && !operation.row.oldRow;
  std::string text = vanishes ? names_.text(handle) : std::string();
  const uint64_t sequence = operation.awaited ? restoreRow(handle, operation) : 0;
  if (vanishes) failures_.undoneIs(handle, std::move(text), sequence);
  restoreRecord(handle, operation);
}

Vela::Outcome EntryUndo::commit() {
  Vela::Outcome stored = database_->commit(Brine::Store::Filling::takeAll);
  if (stored.ok()) putBack_.clear();
  return stored;
}

void EntryUndo::maybePutBackAgain() {
  if (putBack_.empty()) return;
  for (const auto& [handle, operation] : putBack_) {
    if (!tableInfo_.latticeTableInterface(operation.row.rid)) continue;  // rows went with the table
    if (operation.awaited) restoreRow(handle, operation);
    restoreRecord(handle, operation);
  }
  const Vela::Outcome stored = commit();
  if (stored.ok()) return;
  throw Vela::Exception("the switch stays critical: failed entries can still not be put back: " +
                        stored.reason());
}

void EntryUndo::commitOrThrow() {
  if (!database_) return;
  const Vela::Outcome stored = database_->commit(Brine::Store::Filling::leaveRoomToUndo);
  if (!stored.ok()) {
    handles_.reservationDel();  // lost with the rest
    throw std::runtime_error(stored.reason());
  }
  putBack_.clear();
}

// Returns the sequence number of the change; 0: the row was like that already.
uint64_t EntryUndo::restoreRow(EntryHandle handle, const PendingOperation& operation) {
  const RowChange& row = operation.row;
  const auto& interface = tableInfo_.latticeTableInterface(row.rid);
  if (!interface || !interface->ready()) {
    throw std::runtime_error(
        fmt::format("the rows of {} are gone", tableInfo_.kindAndName(row.rid)));
  }
  if (row.oldRow) return interface->rowIs(*row.oldRow, handle);
  return interface->rowDel(row.newRow ? row.newRow->key : row.rowKey, handle);
}

// A store that took nothing of the batch has the former record still. It is not written again:
// there may be no room for it.
void EntryUndo::restoreRecord(EntryHandle handle, const PendingOperation& operation) {
  if (!records_.isMounted()) return;
  const CacheKey key = recordKey(operation.row.rid, handle);
  if (!operation.oldRecord) {
    if (records_.stored(key)) records_.recordDel(key);
  } else if (key.rid.type == tableResource) {
    restoreTableRecord(key, *operation.oldRecord);
  } else {
    restoreMemberOrGroup(key, *operation.oldRecord);
  }
  if (records_.metadata(key) != operation.oldMetadata) {
    records_.metadataIs(key, operation.oldMetadata);
  }
}

void EntryUndo::restoreTableRecord(const CacheKey& key, const std::string& oldRecord) {
  TableCache& cache = *records_.tableCache();
  TableCacheEntry former;
  const Brine::Bytes bytes = Brine::asBytes(oldRecord);
  if (!former.deserialize(bytes.data(), bytes.size())) {
    cache.cacheDel(key);
    return;
  }
  former.entryState = EntryState::stable;
  if (cache.cache(key) != former) cache.cacheIs(former);
}

void EntryUndo::restoreMemberOrGroup(const CacheKey& key, const std::string& oldRecord) {
  const auto stored = records_.stored(key);
  if (stored && Brine::asText(*stored) == oldRecord) return;
  const Brine::Bytes former = Brine::asBytes(oldRecord);
  const bool isMember = key.rid.type == actionProfileResource;
  isMember ? records_.memberCache()->storedIs(key, former)
           : records_.groupCache()->storedIs(key, former);
}

}  // namespace P4Runtime
