#include "P4Runtime/pi/BatchSettling.h"

#include <absl/container/flat_hash_map.h>
#include <absl/container/flat_hash_set.h>
#include <fmt/format.h>
#include <grpcpp/support/status.h>

#include <algorithm>
#include <cassert>
#include <iterator>
#include <optional>
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
  std::optional<BatchStatusEntry> entry;  // nothing: not completed

  bool failed() const { return entry && entry->errorCode() != 0; }
};

void BatchSettling::settle(const StatusVector& known) {
  batchStatus_.onBatchUpdateComplete();
  maybePretendHwProgramming(batchStatus_);
  copyKnownErrors(known, statusVector_);
  BatchWait(batchStatus_).waitForStatusUpdates(entries_.numPendingEntries());
  if (batchStatus_.isWhole()) return settleWhole();
  if (allProgrammed()) return settleAll();
  settleCompletedUpdates();
  maybeHandleTimedOut();
}

// One failure undoes all of it.
void BatchSettling::settleWhole() {
  const auto pending = [](const auto& element) { return isPending(element.second); };
  if (!pi_batch_failed() && batchStatus_.allSucceeded() &&
      std::ranges::all_of(statusVector_, pending)) {
    return settleAll();
  }
  timedOut_ = batchStatus_.pendingOperationCount() > 0;
  nameCulprits();
  undoWhole();
  if (!timedOut_) return;
  throw P4RuntimeCriticalStateException(
      "The switch is in critical state since hardware programming for one or more tables could "
      "not be verified",
      0, ErrorCode::unverified);
}

// The others are ABORTED; so is all of a batch that the front end has given up.
void BatchSettling::nameCulprits() {
  absl::flat_hash_set<BatchOffset> open;
  for (const auto& [handle, written] : batchStatus_.written()) {
    const auto outcome = batchStatus_.completedTransactionStatus(handle);
    const bool failed = outcome && outcome->errorCode() != 0;
    const bool isLate = batchStatus_.pendingOperationHas(handle);
    for (const BatchOffset offset : batchStatus_.offsetsOf(handle)) {
      const auto element = statusIterAtOffset(statusVector_, offset);
      if (element == statusVector_.end() || !isPending(element->second)) continue;
      if (failed) {
        settleStatusEntry(statusVector_, element, outcome->errorCode(), outcome->errorMessage());
      } else if (isLate) {
        describeTimeout(offset, handle, element->second);
        open.insert(offset);
      }
    }
  }
  for (auto& [offset, error] : statusVector_) {
    if (isPending(error) && !open.contains(offset)) {
      error.set_canonical_code(grpc::StatusCode::ABORTED);
      error.clear_message();
    }
  }
}

// The latest entry first: others may point to an earlier one.
void BatchSettling::undoWhole() {
  std::vector<EntryHandle> handles;
  for (const auto& [handle, written] : batchStatus_.written()) handles.push_back(handle);
  batchStatus_.pendingOperationDelAll();
  for (auto handle = handles.rbegin(); handle != handles.rend(); ++handle) {
    settleEntry(*handle, static_cast<uint32_t>(ErrorCode::unverified));
  }
}

// The controller hears that all is as before once the forwarding agents have it so.
void BatchSettling::awaitUndoing() {
  const uint64_t sequence = entries_.lastPutBack();
  if (sequence == 0 || batchStatus_.pretendHwProgramming()) return;
  batchStatus_.undoingIs(sequence);
  BatchWait(batchStatus_).waitForStatusUpdates(1);
  if (batchStatus_.isUndone()) return;
  P4RuntimeCriticalStateException::handleException(P4RuntimeCriticalStateException(
      "The switch is in critical state since a Write could not be undone in the forwarding plane",
      0, ErrorCode::unverified));
}

// Nearly each batch ends like that: each element of the vector is of an entry that the batch wrote,
// and each entry is programmed.
bool BatchSettling::allProgrammed() const {
  if (!batchStatus_.allSucceeded()) return false;
  auto element = statusVector_.begin();
  for (const auto& [handle, written] : batchStatus_.written()) {
    if (!written.hasOffset || written.earlier != 0) return false;
    const bool isOfFormer =
        element != statusVector_.begin() && std::prev(element)->first == written.lastOffset;
    if (isOfFormer) continue;
    if (element == statusVector_.end() || element->first != written.lastOffset) return false;
    if (!isPending(element->second)) return false;
    ++element;
  }
  return element == statusVector_.end();
}

void BatchSettling::settleAll() {
  entries_.updateAllCachedEntryStates();
  const pi_dev_id_t deviceId = server_ ? server_->deviceId() : 0;
  std::vector<pi_entry_handle_t> programmed;
  programmed.reserve(batchStatus_.written().size());
  for (const auto& [handle, written] : batchStatus_.written()) programmed.push_back(handle);
  pi_table_pending_entries_status_changed(deviceId, programmed.data(), programmed.size(), 0);
  statusVector_.clear();  // only now is the outcome certain
}

// Entries that were put back are stored before the controller hears of the failure. Without them
// only the states of records remain to be stored, and a restart can derive these.
void BatchSettling::storeOutcome() {
  if (entries_.anyPutBack()) {
    entries_.commitPutBack();
    if (batchStatus_.isWhole() && !timedOut_) awaitUndoing();
  } else {
    batchStatus_.onBatchConfirmed();
  }
}

// Later offsets first, so that removing an element moves only failed elements; within an offset
// later writes first, since they may depend on earlier ones.
std::vector<BatchSettling::Outcome> BatchSettling::outcomes() const {
  std::vector<Outcome> result;
  result.reserve(batchStatus_.written().size());
  for (const auto& [handle, written] : batchStatus_.written()) {
    if (!written.hasOffset) continue;
    result.push_back({written.lastOffset, handle, batchStatus_.completedTransactionStatus(handle)});
  }
  std::ranges::reverse(result);
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
  const BatchStatus::Offsets offsets = batchStatus_.offsetsOf(handle);
  if (offsets.empty()) {
    throw std::out_of_range(fmt::format("Batch offset for entry handle {} does not exist", handle));
  }
  const auto last = statusIterAtOffset(statusVector_, offsets.back());
  if (last == statusVector_.end()) {
    SCRIVEL_TRACE(0, "markStatusEntryNotPending", " no elements in status vector at offset ",
                  offsets.back());
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
  const ptrdiff_t removedBefore = settleEarlierOffsets(offsets, errorCode, message);
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
  absl::flat_hash_map<BatchOffset, EntryHandle> handles;
  for (const auto& [handle, written] : batchStatus_.written()) {
    for (const BatchOffset offset : batchStatus_.offsetsOf(handle)) handles[offset] = handle;
  }
  for (auto& [offset, error] : statusVector_) {
    if (isPending(error)) {
      const auto found = handles.find(offset);
      describeTimeout(offset, found == handles.end() ? 0 : found->second, error);
    } else {
      SCRIVEL_TRACE(0, "maybeHandleTimedOutStatusEntries", " ignoring offset ", offset,
                    " since its error code is not pending, but ", error.canonical_code());
    }
  }
}

void BatchSettling::describeTimeout(BatchOffset offset, EntryHandle handle,
                                    p4::v1::Error& error) const {
  if (handle == 0) {
    SCRIVEL_TRACE(0, "maybeHandleTimedOutStatusEntries", " offset ", offset,
                  " does not have an entry handle ");
    return;
  }
  const uint32_t tableId = handleMgr_.entryHandleToResourceId(handle).id;
  error.set_message(
      fmt::format("Hardware programming for table id:{} could not be verified", tableId));
  SCRIVEL_TRACE(0, "maybeHandleTimedOutStatusEntries", " offset ", offset,
                " failed due to timeout. ", error.message());
}

std::vector<EntryHandle> BatchSettling::timedOutHandles() const {
  std::vector<EntryHandle> timedOut;
  for (const auto& [handle, written] : batchStatus_.written()) {
    if (batchStatus_.pendingOperationHas(handle)) timedOut.push_back(handle);
  }
  return timedOut;
}

}  // namespace P4Runtime
