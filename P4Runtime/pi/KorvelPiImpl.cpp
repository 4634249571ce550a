// The device, session and batch entry points of the PI target interface. They take the activity
// lock, and hand the process's objects to the units that do the work.
#include "P4Runtime/pi/KorvelPiImpl.h"

#include <fmt/format.h>

#include <sstream>
#include <utility>
#include <vector>

#include "P4Runtime/pi/BatchSettling.h"
#include "P4Runtime/pi/P4RuntimeException.h"
#include "P4Runtime/pi/PiContext.h"
#include "P4Runtime/pi/PretendedProgramming.h"
#include "P4Runtime/pi/WriteGate.h"
#include "PI/frontends/proto/device_mgr.h"
#include "PI/pi.h"
#include "PI/pi_extensions.h"
#include "PI/target/pi_imp.h"
#include "PI/target/pi_pending_imp.h"
#include "platform/scrivel/Trace.h"
#include "platform/vela/ActivityLock.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("KorvelPiImpl");

StatusVector& pendingStatus() {
  static auto* list = new StatusVector;  // guarded by the activity lock
  return *list;
}

// Of the process's batch.
BatchSettling batchSettling(StatusVector& statusVector) {
  return {statusVector, *TheBatchStatus(), *TheBatchEntries(), *TheP4HandleMgr(),
          ThePiContext()->piServer().base()};
}

// Entries may stand that the PI library takes for undone.
void loseTrack(const char* why) {
  TheBatchEntries()->restoreNeededIs(true);
  P4RuntimeBrokenInvariantException::handleException(P4RuntimeBrokenInvariantException(
      fmt::format("the outcome of a Write could not be settled: {}", why)));
}

// After an unknown failure neither success nor undoing is certain: the status says so.
void breakInvariant(StatusVector& statusVector, const char* why) {
  for (auto& [offset, error] : statusVector) {
    if (!isPending(error)) continue;
    error.set_canonical_code(canonicalCode(ErrorCode::internalError));
    error.set_message(fmt::format("its outcome is not known: {}; the switch is critical", why));
  }
  loseTrack(why);
}

// Ends the batch on every path; the gate for Writes observes it.
struct EndOfBatch {
  ~EndOfBatch() { TheBatchStatus()->onBatchSettled(); }
};

// The latest entry first: others may point to an earlier one.
void undoAll() {
  std::vector<EntryHandle> handles;
  for (const auto& [handle, one] : TheBatchStatus()->written()) handles.push_back(handle);
  for (auto handle = handles.rbegin(); handle != handles.rend(); ++handle) {
    TheBatchEntries()->updateCachedEntryState(*handle, true);
  }
}

// Of a batch with a single fate, before any of it is committed: one that has failed already leaves
// nothing to be committed.
void decideWholeBatch() {
  if (!pi_batch_failed() && pendingStatus().empty()) {
    try {
      return TheBatchEntries()->batchIsWhole();
    } catch (const std::exception& e) {
      TheBatchStatus()->failAll(e.what());
    }
  }
  undoAll();
}

void endBatch() {
  try {
    if (TheBatchStatus()->isWhole()) decideWholeBatch();
    TheBatchStatus()->onBatchEnd();
  } catch (const std::exception& e) {  // settling follows, and ends the batch
    loseTrack(e.what());
  }
}

// A batch that is open in part is ended: the next Write would otherwise commit its remains.
void beginBatch() {
  pendingStatus().clear();
  TheBatchEntries()->clearPendingOperations();
  try {
    TheBatchStatus()->onBatchBegin(pi_batch_urgent() != 0, pi_batch_fate() != PI_BATCH_SINGLE);
  } catch (...) {
    const EndOfBatch end;
    endBatch();
    throw;
  }
}

}  // namespace

void setPendingStatusForOffset(unsigned int offset, unsigned int errorCode, std::string message) {
  auto& [at, error] = pendingStatus().emplace_back();
  at = offset;
  error.set_canonical_code(canonicalCode(errorCode));
  error.set_message(std::move(message));
}

StatusIter markStatusEntryNotPending(StatusVector& statusVector, EntryHandle handle,
                                     uint32_t errorCode, const std::string& message) {
  return batchSettling(statusVector).markNotPending(handle, errorCode, message);
}

void maybeHandleTimedOutStatusEntries(StatusVector& statusVector) {
  batchSettling(statusVector).maybeHandleTimedOut();
}

void maybePretendHwProgramming() { maybePretendHwProgramming(*TheBatchStatus()); }

std::string piAssignExtraToString(const pi_assign_extra_t* extra) {
  std::ostringstream out;
  out << '{';
  for (const pi_assign_extra_t* one = extra; one && !one->end_of_extras; ++one) {
    if (one != extra) out << ',';
    out << (one->key ? one->key : "") << '=' << (one->v ? one->v : "");
  }
  out << '}';
  return out.str();
}

}  // namespace P4Runtime

using P4Runtime::StatusVector;
using P4Runtime::TheBatchEntries;
using P4Runtime::TheBatchStatus;
using P4Runtime::trace;
using pi::fe::proto::DeviceMgr;
using Vela::ActivityLock;

void _pi_update_pending_status(StatusVector* statusVector) {
  const ActivityLock lock;
  const P4Runtime::EndOfBatch end;
  SCRIVEL_TRACE(5, "_pi_update_pending_status", " updates: ", statusVector->size());
  P4Runtime::BatchSettling settling = P4Runtime::batchSettling(*statusVector);
  try {
    settling.settle(P4Runtime::pendingStatus());
  } catch (const P4Runtime::P4RuntimeCriticalStateException& e) {
    P4Runtime::P4RuntimeCriticalStateException::handleException(e);
  } catch (const std::exception& e) {
    SCRIVEL_TRACE(0, "_pi_update_pending_status", " unexpected exception: ", e.what());
    P4Runtime::breakInvariant(*statusVector, e.what());
  }
  try {
    settling.storeOutcome();
  } catch (const std::exception& e) {  // the controller hears the outcome all the same
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
  TheBatchEntries()->assignDevice(dev_id);
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
  const P4Runtime::DeviceServer* server = P4Runtime::ThePiContext()->piServer().base();
  return pi_remove_device(server ? server->deviceId() : 0);
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

// A Write may have checked its permission before the gate closed, and operators may set the level,
// so level and gate are read again under the lock.
pi_status_t _pi_batch_begin(pi_session_handle_t session_handle) {
  const ActivityLock lock;
  SCRIVEL_TRACE(5, "_pi_batch_begin", " session_handle: ", session_handle);
  // Without a forwarding agent the whole batch would time out.
  if (!TheBatchStatus()->awaitForwardingAgent()) return PI_STATUS_NO_FORWARDING_AGENT;
  if (pi_batch_fate() == PI_BATCH_WHOLE_AT_ONCE && !TheBatchStatus()->appliesAtOnce()) {
    return PI_STATUS_NOT_IMPLEMENTED_BY_TARGET;
  }
  const P4Runtime::WriteGate* const gate = P4Runtime::TheWriteGate();
  if (DeviceMgr::get_operation_permission_level() == P4Runtime::nothingAllowed ||
      (gate && !gate->isOpen())) {
    SCRIVEL_TRACE(1, "_pi_batch_begin", " refused: Writes are not let in now");
    return PI_STATUS_TARGET_TRANSPORT_ERROR;
  }
  try {
    P4Runtime::beginBatch();
  } catch (const std::exception& e) {
    SCRIVEL_TRACE(0, "_pi_batch_begin", " unexpected exception: ", e.what());
    return PI_STATUS_TARGET_ERROR;
  }
  return PI_STATUS_SUCCESS;
}

pi_status_t _pi_batch_end(pi_session_handle_t session_handle, bool hw_sync) {
  const ActivityLock lock;
  SCRIVEL_TRACE(5, "_pi_batch_end", " session_handle: ", session_handle, " hw_sync: ", hw_sync);
  P4Runtime::endBatch();
  return PI_STATUS_SUCCESS;
}

}  // extern "C"
