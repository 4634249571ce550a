#include "P4Runtime/table/undo/EntrySettler.h"

#include <cassert>
#include <utility>

#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("TableImpl");

}  // namespace

void EntrySettler::settle(EntryHandle handle, bool abort) {
  PendingOperation done;
  if (abort) {
    SCRIVEL_TRACE(1, "TableImpl", " restoring old entry for entryHandle: ", handle);
    if (handles_.entryHandleToResourceIdHas(handle)) undoOperation(handle);
  } else {
    SCRIVEL_TRACE(7, "TableImpl", " erasing entryHandle: ", handle, " on success");
    done = confirm(handle);
  }
  const bool known = done.row.rid.type != 0;
  const ResourceId rid = known ? done.row.rid : handles_.entryHandleToResourceId(handle);
  if (rid.type == tableResource) return settleTableRecord({rid, handle}, done.newRecord, abort);
  SCRIVEL_TRACE(6, "TableImpl", "Entry handle: ", handle, " already deleted?");
  // Of a deleted member or group only the handle is left.
  if (done.type == PendingOperationType::entryDelete) removeEntry(rid, handle);
}

PendingOperation EntrySettler::confirm(EntryHandle handle) {
  auto done = pending_.take(handle);
  pending_.stopAwaiting(handle);  // of a constant entry, which nobody waits for
  strayReports_.forgetMended(handle);
  return done ? std::move(*done) : PendingOperation();
}

// `written`: the record that the operation wrote, empty where it has to be looked up.
void EntrySettler::settleTableRecord(const CacheKey& key, const std::string& written, bool abort) {
  const bool isKnown = !written.empty() && records_.isMounted();
  const auto record = isKnown ? Brine::asBytes(written) : records_.stored(key);
  const auto state = record ? storedState(*record) : std::nullopt;
  if (!state) {
    SCRIVEL_TRACE(1, "TableImpl", "Entry handle: ", key.entryHandle, " does not exist in cache");
    return;
  }
  if (*state == EntryState::stable) return;
  if ((*state == EntryState::pendingToBeAdded) == abort) {
    removeEntry(key.rid, key.entryHandle);
  } else {
    records_.stateIs(key, *record, EntryState::stable);
  }
}

void EntrySettler::undoOperation(EntryHandle handle) {
  assert(handles_.entryHandleToResourceIdHas(handle));
  if (const auto operation = pending_.take(handle)) {
    pending_.stopAwaiting(handle);
    handles_.reservationDel();  // its commit may have failed
    SCRIVEL_TRACE(1, "TableImpl", " restore table entry for entryHandle: ", handle,
                  operation->type == PendingOperationType::entryAdd ? " add" : " delete");
    undo_.putBack(handle, *operation);
  } else {
    SCRIVEL_TRACE(1, "TableImpl", " nothing to do for handle: ", handle);
  }
  const CacheKey key = recordKey(handles_.entryHandleToResourceId(handle), handle);
  if (!records_.stored(key)) handles_.freeEntryHandle(handle);
}

void EntrySettler::deleteRecord(const ResourceId& rid, EntryHandle handle) {
  const CacheKey key = recordKey(rid, handle);
  if (rid.type != tableResource) {
    records_.recordDel(key);  // the pending operation has a copy
    records_.metadataIs(key, {});
    return;
  }
  const auto record = records_.stored(key);
  if (record && storedState(*record)) {
    records_.stateIs(key, *record, EntryState::pendingToBeDeleted);
  }
}

void EntrySettler::removeEntry(const ResourceId& rid, EntryHandle handle) {
  if (!handles_.entryHandleToResourceIdHas(handle)) {
    SCRIVEL_TRACE(1, "TableImpl", " Entry handle: ", handle, " is not mapped to a riod");
    return;
  }
  const CacheKey key = recordKey(rid, handle);
  records_.recordDel(key);
  records_.metadataIs(key, {});
  failures_.failureDel(handle);
  handles_.freeEntryHandle(handle);
}

}  // namespace P4Runtime
