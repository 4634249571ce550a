#include "P4Runtime/table/undo/EntrySettler.h"

#include <cassert>
#include <utility>

#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("TableImpl");

}  // namespace

void EntrySettler::settle(EntryHandle handle, bool abort) {
  if (abort) {
    SCRIVEL_TRACE(1, "TableImpl", " restoring old entry for entryHandle: ", handle);
    if (handles_.entryHandleToResourceIdHas(handle)) undoOperation(handle);
  } else {
    SCRIVEL_TRACE(7, "TableImpl", " erasing entryHandle: ", handle, " on success");
    const auto done = pending_.take(handle);
    pending_.stopAwaiting(handle);  // of a constant entry, which nobody waits for
    confirm(handle, done ? &*done : nullptr);
  }
}

void EntrySettler::settleAll() {
  pending_.takeAll([this](EntryHandle handle, const PendingOperation& operation) {
    confirm(handle, &operation);
  });
}

// Only the handle of a deleted entry is left.
void EntrySettler::confirm(EntryHandle handle, const PendingOperation* operation) {
  strayReports_.forgetMended(handle);
  if (!operation || operation->type != PendingOperationType::entryDelete) return;
  failures_.failureDel(handle);
  handles_.freeEntryHandle(handle);
}

void EntrySettler::undoOperation(EntryHandle handle) {
  assert(handles_.entryHandleToResourceIdHas(handle));
  if (const auto operation = pending_.take(handle)) {
    pending_.stopAwaiting(handle);
    handles_.reservationDel();  // it may be undone, too
    SCRIVEL_TRACE(1, "TableImpl", " restore table entry for entryHandle: ", handle,
                  operation->type == PendingOperationType::entryAdd ? " add" : " delete");
    undo_.putBack(handle, *operation);
  } else {
    SCRIVEL_TRACE(1, "TableImpl", " nothing to do for handle: ", handle);
  }
  const CacheKey key = recordKey(handles_.entryHandleToResourceId(handle), handle);
  if (!records_.has(key)) handles_.freeEntryHandle(handle);
}

void EntrySettler::deleteRecord(const ResourceId& rid, EntryHandle handle) {
  const CacheKey key = recordKey(rid, handle);
  if (rid.type != tableResource && records_.has(key)) {
    records_.recordDel(key);
    pending_.noteChange(handle, records_.lastChange());
  }
  if (records_.metadata(key).empty()) return;
  records_.metadataIs(key, {});
  pending_.noteChange(handle, records_.lastChange());
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
