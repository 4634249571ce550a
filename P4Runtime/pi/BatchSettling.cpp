#include "P4Runtime/pi/BatchSettling.h"

#include <fmt/format.h>

#include <algorithm>
#include <cassert>
#include <stdexcept>

#include "P4Runtime/pi/BatchWait.h"
#include "P4Runtime/pi/P4RuntimeException.h"
#include "P4Runtime/pi/PretendedProgramming.h"
#include "PI/pi.h"
#include "PI/pi_extensions.h"
#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("KorvelPiImpl");

}  // namespace

struct BatchSettling::Outcome {
  BatchOffset offset = 0;
  EntryHandle handle = 0;
  const BatchStatusEntry* entry = nullptr;  // null: not completed

  bool failed() const { return entry && entry->errorCode() != 0; }
};

void BatchSettling::settle(const StatusVector& known) {
  batchStatus_.onBatchUpdateComplete();
  maybePretendHwProgramming(batchStatus_);
  copyKnownErrors(known, statusVector_);
  BatchWait(batchStatus_).waitForStatusUpdates(entries_.numPendingEntries());
  settleCompletedUpdates();
  maybeHandleTimedOut();
}

// Entries that were put back are stored before the controller hears of the failure. Without them
// only the states of records remain to be stored, and a restart can derive these.
void BatchSettling::storeOutcome() {
  if (entries_.anyPutBack()) {
    entries_.commitPutBack();
  } else {
    batchStatus_.onBatchConfirmed();
  }
}

// Later offsets first, so that removing an element moves only failed elements; within an offset
// later writes first, since they may depend on earlier ones.
std::vector<BatchSettling::Outcome> BatchSettling::outcomes() const {
  const auto& handles = batchStatus_.entryHandles();
  const auto& completed = batchStatus_.completedTransactionStatus();
  std::vector<Outcome> result;
  result.reserve(handles.size());
  for (auto handle = handles.rbegin(); handle != handles.rend(); ++handle) {
    const auto done = completed.find(*handle);
    result.push_back({batchStatus_.entryHandleToBatchOffset().at(*handle).back(), *handle,
                      done == completed.end() ? nullptr : &done->second});
  }
  const auto later = [](const Outcome& a, const Outcome& b) { return a.offset > b.offset; };
  if (!std::is_sorted(result.begin(), result.end(), later)) {
    std::stable_sort(result.begin(), result.end(), later);
  }
  return result;
}

void BatchSettling::settleCompletedUpdates() {
  std::vector<Outcome> all = outcomes();
  for (auto first = all.begin(); first != all.end();) {
    const auto next = std::find_if(first, all.end(),
                                   [&](const Outcome& one) { return one.offset != first->offset; });
    settleUpdate({first, next});
    first = next;
  }
}

bool BatchSettling::isOpen(const Outcome& one) const {
  return batchStatus_.pendingOperationHas(one.handle);
}

bool BatchSettling::succeeds(std::span<const Outcome> update) const {
  if (std::ranges::any_of(update, &Outcome::failed)) return false;
  const auto element = statusIterAtOffset(statusVector_, update.front().offset);
  return element != statusVector_.end() && isPending(element->second);
}

// All handles of an update share its fate: one failure undoes them all.
void BatchSettling::settleUpdate(std::span<Outcome> update) {
  const bool succeeds = this->succeeds(update);
  const auto isOpen = [this](const Outcome& one) { return this->isOpen(one); };
  if (succeeds && std::ranges::any_of(update, isOpen)) return;  // it has timed out
  const auto firstFailed = std::ranges::find_if(update, &Outcome::failed);
  if (firstFailed != update.end()) std::rotate(update.begin(), firstFailed, firstFailed + 1);
  bool elementErased = false;
  for (const Outcome& one : update) {
    if (!one.entry) continue;
    if (elementErased) {
      settleEntry(one.handle, 0);
    } else {
      markNotPending(one.handle, one.entry->errorCode(), one.entry->errorMessage());
      elementErased = succeeds;
    }
  }
}

StatusIter BatchSettling::markNotPending(EntryHandle handle, uint32_t errorCode,
                                         const std::string& message) {
  const auto& offsetsOf = batchStatus_.entryHandleToBatchOffset();
  const auto offsets = offsetsOf.find(handle);
  if (offsets == offsetsOf.end()) {
    throw std::out_of_range(fmt::format("Batch offset for entry handle {} does not exist", handle));
  }
  const auto last = statusIterAtOffset(statusVector_, offsets->second.back());
  if (last == statusVector_.end()) {
    SCRIVEL_TRACE(0, "markStatusEntryNotPending", " no elements in status vector at offset ",
                  offsets->second.back());
    return last;
  }
  if (!isPending(last->second)) {
    SCRIVEL_TRACE(1, "markStatusEntryNotPending", " already failed, offset ", last->first);
    assert(last->second.canonical_code() != 0);  // a programmed entry leaves the vector
    entries_.updateCachedEntryState(handle, true);
    return last + 1;
  }
  const auto position = last - statusVector_.begin();
  settleStatusEntry(statusVector_, last, errorCode, message);
  const ptrdiff_t removedBefore = settleEarlierOffsets(offsets->second, errorCode, message);
  settleEntry(handle, errorCode);
  return statusVector_.begin() + position - removedBefore + (errorCode != 0 ? 1 : 0);
}

ptrdiff_t BatchSettling::settleEarlierOffsets(const BatchStatus::Offsets& offsets,
                                              uint32_t errorCode, const std::string& message) {
  ptrdiff_t removed = 0;
  for (size_t i = offsets.size() - 1; i-- > 0;) {
    const auto earlier = statusIterAtOffset(statusVector_, offsets[i]);
    if (earlier == statusVector_.end() || !isPending(earlier->second)) continue;
    settleStatusEntry(statusVector_, earlier, errorCode, message);
    if (errorCode == 0) ++removed;
  }
  return removed;
}

void BatchSettling::settleEntry(EntryHandle handle, uint32_t errorCode) {
  entries_.updateCachedEntryState(handle, errorCode != 0);
  tellPiLibrary(handle, errorCode);
}

void BatchSettling::tellPiLibrary(EntryHandle handle, uint32_t errorCode) const {
  const pi_dev_id_t deviceId = server_ ? server_->deviceId() : 0;
  pi_table_pending_entry_status_changed(deviceId, &handle, errorCode);
}

void BatchSettling::maybeHandleTimedOut() {
  const auto pending = [](const auto& element) { return isPending(element.second); };
  // An update may have failed although part of it was never reported on.
  if (std::ranges::none_of(statusVector_, pending) && batchStatus_.pendingOperationCount() == 0) {
    return;
  }
  describeTimeouts();
  const std::vector<EntryHandle> timedOut = timedOutHandles();
  if (timedOut.empty()) return;
  batchStatus_.onBatchRollback();
  for (const EntryHandle handle : timedOut) {
    tellPiLibrary(handle, static_cast<uint32_t>(ErrorCode::unverified));
  }
  throw P4RuntimeCriticalStateException(
      "The switch is in critical state since hardware programming for one or more tables could "
      "not be verified",
      0, ErrorCode::unverified);
}

void BatchSettling::describeTimeouts() {
  for (auto& [offset, error] : statusVector_) {
    if (isPending(error)) {
      describeTimeout(offset, error);
    } else {
      SCRIVEL_TRACE(0, "maybeHandleTimedOutStatusEntries", " ignoring offset ", offset,
                    " since its error code is not pending, but ", error.canonical_code());
    }
  }
}

void BatchSettling::describeTimeout(BatchOffset offset, p4::v1::Error& error) const {
  const auto found = batchStatus_.batchOffsetToEntryHandle().find(offset);
  if (found == batchStatus_.batchOffsetToEntryHandle().end()) {
    SCRIVEL_TRACE(0, "maybeHandleTimedOutStatusEntries", " offset ", offset,
                  " does not have an entry handle ");
    return;
  }
  const uint32_t tableId = handleMgr_.entryHandleToResourceId(found->second).id;
  error.set_message(
      fmt::format("Hardware programming for table id:{} could not be verified", tableId));
  SCRIVEL_TRACE(0, "maybeHandleTimedOutStatusEntries", " offset ", offset,
                " failed due to timeout. ", error.message());
}

std::vector<EntryHandle> BatchSettling::timedOutHandles() const {
  std::vector<EntryHandle> timedOut;
  std::ranges::copy_if(
      batchStatus_.entryHandles(), std::back_inserter(timedOut),
      [this](EntryHandle handle) { return batchStatus_.pendingOperationHas(handle); });
  return timedOut;
}

}  // namespace P4Runtime
