// The device, session and batch entry points of the PI target interface, and the folding of the
// forwarding agents' reports into the answer of a write batch.
#include "P4Runtime/pi/KorvelPiImpl.h"

#include <fmt/format.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <chrono>
#include <span>
#include <stdexcept>

#include "P4Runtime/agent/KorvelPiServer.h"
#include "P4Runtime/companion/BatchStatus.h"
#include "P4Runtime/companion/P4HandleMgr.h"
#include "P4Runtime/companion/P4RtSystemConfig.h"
#include "P4Runtime/pi/P4RuntimeException.h"
#include "P4Runtime/pi/PiContext.h"
#include "P4Runtime/pi/WriteGate.h"
#include "P4Runtime/pipeline/PiDebug.h"
#include "P4Runtime/table/TableImpl.h"
#include "PI/frontends/proto/device_mgr.h"
#include "PI/pi.h"
#include "PI/pi_extensions.h"
#include "PI/target/pi_imp.h"
#include "PI/target/pi_pending_imp.h"
#include "p4/v1/p4runtime.pb.h"
#include "platform/scrivel/Trace.h"
#include "platform/vela/ActivityLock.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("KorvelPiImpl");

constexpr int pendingCode = 4;                   // the canonical code of an exceeded deadline
constexpr double longestTimeout = 24 * 60 * 60;  // seconds

StatusVector& pendingStatus() {
  static auto* list = new StatusVector;  // guarded by the activity lock
  return *list;
}

bool isPending(const p4::v1::Error& error) { return error.canonical_code() == pendingCode; }

// The device of the server's configuration; 0 when there is none.
pi_dev_id_t configuredDeviceId() {
  const auto server = ThePiContext()->piServer();
  return server ? server->deviceId() : 0;
}

void tellPiLibrary(EntryHandle handle, uint32_t errorCode) {
  pi_table_pending_entry_status_changed(configuredDeviceId(), &handle, errorCode);
}

void settleEntry(EntryHandle handle, uint32_t errorCode) {
  TheTableImpl()->updateCachedEntryState(handle, errorCode != 0);
  tellPiLibrary(handle, errorCode);
}

enum class TimeoutOrReady { timeout, ready };

// A report is often only some ten microseconds away: a processor that naps until then takes longer
// to wake than it slept.
constexpr std::chrono::microseconds worthSpinning(50);

int selectReadable(int fd, timeval timeout) {
  fd_set readSet;
  FD_ZERO(&readSet);
  FD_SET(fd, &readSet);
  int ready = 0;
  do {
    ready = select(fd + 1, &readSet, nullptr, nullptr, &timeout);
  } while (ready == -1 && errno == EINTR);
  return ready;
}

// Waits, without the activity lock, until reports have come in. `completedOps` gets their count.
TimeoutOrReady waitForBatchStatusActivityOrTimeout(uint64_t* completedOps) {
  BatchStatus& batchStatus = *TheBatchStatus();
  const int notifyFd = batchStatus.notifyFd();
  timeval timeout{};
  // Operators may set any number.
  timeout.tv_sec =
      static_cast<time_t>(std::clamp(batchStatus.batchTimeout().seconds, 0.0, longestTimeout));
  int ready = 0;
  {
    const Vela::ActivityLockReleased released;
    const auto spinUntil = std::chrono::steady_clock::now() + worthSpinning;
    do {
      ready = selectReadable(notifyFd, {});
    } while (ready == 0 && std::chrono::steady_clock::now() < spinUntil);
    if (ready == 0) ready = selectReadable(notifyFd, timeout);
  }
  if (ready == -1) assert(0 && "select failed");
  if (ready == 0) return TimeoutOrReady::timeout;
  uint64_t count = 0;
  if (read(notifyFd, &count, sizeof count) != sizeof count) return TimeoutOrReady::ready;
  const uint64_t baseline = batchStatus.completedOperationBaseline();
  *completedOps = count >= baseline ? count - baseline : count;
  return TimeoutOrReady::ready;
}

void waitForStatusUpdates() {
  const uint64_t pending = TheTableImpl()->numPendingEntries();
  uint64_t completed = 0;
  while (completed < pending) {
    uint64_t completedOps = 0;
    if (waitForBatchStatusActivityOrTimeout(&completedOps) == TimeoutOrReady::timeout) {
      SCRIVEL_TRACE(0, "_pi_update_pending_status", " timed out waiting for batch status ");
      return;
    }
    completed += completedOps;
    SCRIVEL_TRACE(5, "_pi_update_pending_status", " completedOps: ", completedOps,
                  " current total completed ops ", completed, " num entries pending: ", pending);
  }
}

void copyPendingStatus(StatusVector& statusVector) {
  for (const auto& [offset, error] : pendingStatus()) {
    const auto found = statusIterAtOffset(statusVector, offset);
    if (found == statusVector.end()) {
      SCRIVEL_TRACE(0, "_pi_update_pending_status", " reached end of status for offset ", offset);
      return;
    }
    SCRIVEL_TRACE(5, "_pi_update_pending_status", " Copying pending status for offset ", offset);
    found->second = error;
  }
}

// What is known of one handle of the batch.
struct Outcome {
  BatchOffset offset = 0;
  EntryHandle handle = 0;
  const BatchStatusEntry* entry = nullptr;  // null: not completed
};

// Later offsets first, so that removing an element moves only those that have failed; within one
// the later writes first, since they may stand on the earlier ones.
std::vector<Outcome> outcomes(const BatchStatus& batchStatus) {
  const auto& handles = batchStatus.entryHandles();
  const auto& completed = batchStatus.completedTransactionStatus();
  std::vector<Outcome> result;
  result.reserve(handles.size());
  for (auto handle = handles.rbegin(); handle != handles.rend(); ++handle) {
    const auto done = completed.find(*handle);
    result.push_back({batchStatus.entryHandleToBatchOffset().at(*handle).back(), *handle,
                      done == completed.end() ? nullptr : &done->second});
  }
  const auto later = [](const Outcome& a, const Outcome& b) { return a.offset > b.offset; };
  if (!std::is_sorted(result.begin(), result.end(), later)) {
    std::stable_sort(result.begin(), result.end(), later);
  }
  return result;
}

// All handles of an update share its fate: one failure undoes them all.
void settleUpdate(StatusVector& statusVector, std::span<Outcome> update) {
  const auto failed = [](const Outcome& one) { return one.entry && one.entry->errorCode() != 0; };
  const auto isOpen = [](const Outcome& one) {
    return TheBatchStatus()->pendingOperationHas(one.handle);
  };
  const auto firstFailed = std::find_if(update.begin(), update.end(), failed);
  const auto element = statusIterAtOffset(statusVector, update.front().offset);
  const bool succeeds =
      firstFailed == update.end() && element != statusVector.end() && isPending(element->second);
  if (succeeds && std::any_of(update.begin(), update.end(), isOpen)) return;  // it has timed out
  if (firstFailed != update.end()) std::rotate(update.begin(), firstFailed, firstFailed + 1);
  bool hasLeft = false;  // the element, the vector
  for (const Outcome& one : update) {
    if (!one.entry) continue;
    if (hasLeft) {
      settleEntry(one.handle, 0);
    } else {
      markStatusEntryNotPending(statusVector, one.handle, one.entry->errorCode(),
                                one.entry->errorMessage());
      hasLeft = succeeds;
    }
  }
}

void handleCompletedTransactions(StatusVector& statusVector) {
  std::vector<Outcome> all = outcomes(*TheBatchStatus());
  for (auto first = all.begin(); first != all.end();) {
    const auto next = std::find_if(first, all.end(),
                                   [&](const Outcome& one) { return one.offset != first->offset; });
    settleUpdate(statusVector, {first, next});
    first = next;
  }
}

void updatePendingStatus(StatusVector& statusVector) {
  TheBatchStatus()->onBatchUpdateComplete();
  maybePretendHwProgramming();
  copyPendingStatus(statusVector);
  waitForStatusUpdates();
  handleCompletedTransactions(statusVector);
  maybeHandleTimedOutStatusEntries(statusVector);
}

// Entries that were put back must be stored before the controller hears of the failure. Otherwise
// only the states of records remain to be stored, and a restart can derive these.
void storeOutcome() {
  if (TheTableImpl()->anyPutBack()) {
    TheTableImpl()->commitPutBack();
  } else {
    TheBatchStatus()->onBatchConfirmed();
  }
}

// The PI library takes for undone what may stand.
void loseTrack(const char* why) {
  TheTableImpl()->restoreNeededIs(true);
  P4RuntimeBrokenInvariantException::handleException(P4RuntimeBrokenInvariantException(
      fmt::format("the outcome of a Write could not be settled: {}", why)));
}

// What is not understood must not be answered as if it were: neither done nor undone is certain.
void breakInvariant(StatusVector& statusVector, const char* why) {
  for (auto& [offset, error] : statusVector) {
    if (!isPending(error)) continue;
    error.set_canonical_code(canonicalCode(ErrorCode::internalError));
    error.set_message(fmt::format("its outcome is not known: {}; the switch is critical", why));
  }
  loseTrack(why);
}

// Whatever happens, the batch is over, and the gate for Writes hears of it.
struct BatchSettled {
  ~BatchSettled() { TheBatchStatus()->onBatchSettled(); }
};

void settleStatusEntry(StatusVector& statusVector, StatusIter element, uint32_t errorCode,
                       const std::string& message) {
  if (errorCode == 0) {
    SCRIVEL_TRACE(7, "markStatusEntryNotPending", " Remove statusEntry for offset ",
                  element->first);
    statusVector.erase(element);
    return;
  }
  SCRIVEL_TRACE(1, "markStatusEntryNotPending", " Setting errorCode for offset ", element->first);
  element->second.set_canonical_code(canonicalCode(errorCode));
  element->second.set_message(message);
}

}  // namespace

void setPendingStatusForOffset(unsigned int offset, unsigned int errorCode, std::string message) {
  auto& [at, error] = pendingStatus().emplace_back();
  at = offset;
  error.set_canonical_code(canonicalCode(errorCode));
  error.set_message(std::move(message));
}

StatusIter statusIterAtOffset(StatusVector& statusVector, BatchOffset offset) {
  const auto found =
      std::lower_bound(statusVector.begin(), statusVector.end(), offset,
                       [](const auto& element, BatchOffset o) { return element.first < o; });
  return found != statusVector.end() && found->first == offset ? found : statusVector.end();
}

StatusIter markStatusEntryNotPending(StatusVector& statusVector, EntryHandle handle,
                                     uint32_t errorCode, const std::string& message) {
  const auto& offsetsOf = TheBatchStatus()->entryHandleToBatchOffset();
  const auto offsets = offsetsOf.find(handle);
  if (offsets == offsetsOf.end()) {
    throw std::out_of_range(fmt::format("Batch offset for entry handle {} does not exist", handle));
  }
  const auto last = statusIterAtOffset(statusVector, offsets->second.back());
  if (last == statusVector.end()) {
    SCRIVEL_TRACE(0, "markStatusEntryNotPending", " no elements in status vector at offset ",
                  offsets->second.back());
    return last;
  }
  if (!isPending(last->second)) {
    SCRIVEL_TRACE(1, "markStatusEntryNotPending", " already failed, offset ", last->first);
    assert(last->second.canonical_code() != 0);  // a programmed entry leaves the vector
    TheTableImpl()->updateCachedEntryState(handle, true);
    return last + 1;
  }
  // The same entry may have been written at earlier offsets of the batch; they share its fate.
  const auto position = last - statusVector.begin();
  settleStatusEntry(statusVector, last, errorCode, message);
  ptrdiff_t removedBefore = 0;
  for (size_t i = offsets->second.size() - 1; i-- > 0;) {
    const auto earlier = statusIterAtOffset(statusVector, offsets->second[i]);
    if (earlier == statusVector.end() || !isPending(earlier->second)) continue;
    settleStatusEntry(statusVector, earlier, errorCode, message);
    if (errorCode == 0) ++removedBefore;
  }
  settleEntry(handle, errorCode);
  return statusVector.begin() + position - removedBefore + (errorCode != 0 ? 1 : 0);
}

void maybeHandleTimedOutStatusEntries(StatusVector& statusVector) {
  BatchStatus& batchStatus = *TheBatchStatus();
  const auto pending = [](const auto& element) { return isPending(element.second); };
  // An update may have failed although part of it was never reported on.
  if (std::none_of(statusVector.begin(), statusVector.end(), pending) &&
      batchStatus.pendingOperationCount() == 0) {
    return;
  }
  for (auto& [offset, error] : statusVector) {
    if (!isPending(error)) {
      SCRIVEL_TRACE(0, "maybeHandleTimedOutStatusEntries", " ignoring offset ", offset,
                    " since its error code is not pending, but ", error.canonical_code());
      continue;
    }
    const auto found = batchStatus.batchOffsetToEntryHandle().find(offset);
    if (found == batchStatus.batchOffsetToEntryHandle().end()) {
      SCRIVEL_TRACE(0, "maybeHandleTimedOutStatusEntries", " offset ", offset,
                    " does not have an entry handle ");
      continue;
    }
    const uint32_t tableId = TheP4HandleMgr()->entryHandleToResourceId(found->second).id;
    error.set_message(
        fmt::format("Hardware programming for table id:{} could not be verified", tableId));
    SCRIVEL_TRACE(0, "maybeHandleTimedOutStatusEntries", " offset ", offset,
                  " failed due to timeout. ", error.message());
  }
  std::vector<EntryHandle> timedOut;
  for (const EntryHandle handle : batchStatus.entryHandles()) {
    if (batchStatus.pendingOperationHas(handle)) timedOut.push_back(handle);
  }
  if (timedOut.empty()) return;
  batchStatus.onBatchRollback();
  for (const EntryHandle handle : timedOut) {
    tellPiLibrary(handle, static_cast<uint32_t>(ErrorCode::unverified));
  }
  throw P4RuntimeCriticalStateException(
      "The switch is in critical state since hardware programming for one or more tables could "
      "not be verified",
      0, ErrorCode::unverified);
}

void maybePretendHwProgramming() {
  BatchStatus* batchStatus = TheBatchStatus();
  if (!batchStatus->pretendHwProgramming()) return;
  assert(!batchStatus->pretendHwProgrammingFailed() ||
         !batchStatus->pretendHwProgrammingTimeout() ||
         (batchStatus->pretendHwProgrammingFailedOffset() !=
          batchStatus->pretendHwProgrammingTimeoutOffset()));
  for (const EntryHandle handle : batchStatus->entryHandles()) {
    const BatchOffset offset = batchStatus->entryHandleToBatchOffset().at(handle).back();
    if (batchStatus->pretendHwProgrammingTimeout() &&
        offset == batchStatus->pretendHwProgrammingTimeoutOffset()) {
      batchStatus->pretendSilence(handle);  // so that the time-out takes its course
      continue;
    }
    const bool fails = batchStatus->pretendHwProgrammingFailed() &&
                       offset == batchStatus->pretendHwProgrammingFailedOffset();
    SCRIVEL_TRACE(1, "maybePretendHwProgramming", " Created statusEntry for entryHandle: ", handle,
                  fails ? " Pretend failure for offset " : " Pretend success for offset ", offset);
    BatchStatusEntry entry(
        handle, static_cast<uint16_t>(fails ? ErrorCode::hardwareError : ErrorCode::none));
    entry.setErrorMessage();
    batchStatus->completedTransactionStatusIs(entry);
  }
}

}  // namespace P4Runtime

using P4Runtime::StatusVector;
using P4Runtime::TheBatchStatus;
using P4Runtime::TheTableImpl;
using P4Runtime::trace;
using pi::fe::proto::DeviceMgr;
using Vela::ActivityLock;

void _pi_update_pending_status(StatusVector* statusVector) {
  const ActivityLock lock;
  const P4Runtime::BatchSettled settled;
  SCRIVEL_TRACE(5, "_pi_update_pending_status", " updates: ", statusVector->size());
  try {
    P4Runtime::updatePendingStatus(*statusVector);
  } catch (const P4Runtime::P4RuntimeCriticalStateException& e) {
    P4Runtime::P4RuntimeCriticalStateException::handleException(e);
  } catch (const std::exception& e) {
    SCRIVEL_TRACE(0, "_pi_update_pending_status", " unexpected exception: ", e.what());
    P4Runtime::breakInvariant(*statusVector, e.what());
  }
  try {
    P4Runtime::storeOutcome();
  } catch (const std::exception& e) {  // the controller shall hear the outcome all the same
    P4Runtime::loseTrack(e.what());
  }
}

extern "C" {

// Takes no activity lock: the library calls it before anything else can run.
pi_status_t _pi_init(void* extra) {
  SCRIVEL_TRACE(1, "_pi_init", " extra(ptr): ", extra);
  TheBatchStatus()->cleanUpBatchState();
  return PI_STATUS_SUCCESS;
}

pi_status_t _pi_assign_device(pi_dev_id_t dev_id, const pi_p4info_t* p4info,
                              pi_assign_extra_t* extra) {
  const ActivityLock lock;
  SCRIVEL_TRACE(1, "_pi_assign_device", " dev_id: ", dev_id,
                " p4info(ptr): ", static_cast<const void*>(p4info),
                " extra=", P4Runtime::piAssignExtraToString(extra));
  TheTableImpl()->deviceIdIs(dev_id);
  return PI_STATUS_SUCCESS;
}

pi_status_t _pi_update_device_start(pi_dev_id_t dev_id, const pi_p4info_t* p4info,
                                    const char* device_data, size_t device_data_size) {
  const ActivityLock lock;
  SCRIVEL_TRACE(1, "_pi_update_device_start", " dev_id: ", dev_id,
                " p4info(ptr): ", static_cast<const void*>(p4info),
                " device_data=", Scrivel::buffer(device_data, device_data_size));
  return PI_STATUS_SUCCESS;
}

pi_status_t _pi_update_device_end(pi_dev_id_t dev_id) {
  const ActivityLock lock;
  SCRIVEL_TRACE(1, "_pi_update_device_end", " dev_id: ", dev_id);
  return PI_STATUS_SUCCESS;
}

pi_status_t _pi_remove_device(pi_dev_id_t dev_id) {
  const ActivityLock lock;
  SCRIVEL_TRACE(1, "_pi_remove_device", " dev_id: ", dev_id);
  return PI_STATUS_SUCCESS;
}

pi_status_t _pi_destroy() {
  const ActivityLock lock;
  SCRIVEL_TRACE(1, "_pi_destroy");
  return pi_remove_device(P4Runtime::configuredDeviceId());
}

pi_status_t _pi_session_init(pi_session_handle_t* session_handle) {
  const ActivityLock lock;
  SCRIVEL_TRACE(1, "_pi_session_init");
  *session_handle = 0;
  return PI_STATUS_SUCCESS;
}

pi_status_t _pi_session_cleanup(pi_session_handle_t session_handle) {
  const ActivityLock lock;
  SCRIVEL_TRACE(1, "_pi_session_cleanup", " session_handle: ", session_handle);
  return PI_STATUS_SUCCESS;
}

// A Write may have checked its permission before the gate was closed, and operators set levels
// whatever the gate says; asked under the lock, level and gate are those that stand.
pi_status_t _pi_batch_begin(pi_session_handle_t session_handle) {
  const ActivityLock lock;
  SCRIVEL_TRACE(5, "_pi_batch_begin", " session_handle: ", session_handle);
  // Without one, all that a batch writes would time out.
  if (!TheBatchStatus()->awaitForwardingAgent()) return PI_STATUS_NO_FORWARDING_AGENT;
  const P4Runtime::WriteGate* const gate = P4Runtime::TheWriteGate();
  if (DeviceMgr::get_operation_permission_level() == P4Runtime::nothingAllowed ||
      (gate && !gate->isOpen())) {
    SCRIVEL_TRACE(1, "_pi_batch_begin", " refused: Writes are not let in now");
    return PI_STATUS_TARGET_TRANSPORT_ERROR;
  }
  P4Runtime::pendingStatus().clear();
  TheTableImpl()->clearPendingOperations();
  TheBatchStatus()->onBatchBegin();
  return PI_STATUS_SUCCESS;
}

pi_status_t _pi_batch_end(pi_session_handle_t session_handle, bool hw_sync) {
  const ActivityLock lock;
  SCRIVEL_TRACE(5, "_pi_batch_end", " session_handle: ", session_handle, " hw_sync: ", hw_sync);
  try {
    TheBatchStatus()->onBatchEnd();
  } catch (const std::exception& e) {  // the settling, which ends the batch, follows all the same
    P4Runtime::loseTrack(e.what());
  }
  return PI_STATUS_SUCCESS;
}

}  // extern "C"
