#include "P4Runtime/pi/P4RuntimeException.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <chrono>
#include <cstdio>

#include "P4Runtime/companion/BatchStatus.h"
#include "P4Runtime/companion/P4RtSystemConfig.h"
#include "P4Runtime/pi/KorvelPiImpl.h"
#include "P4Runtime/pi/PiContext.h"
#include "P4Runtime/pi/WriteGate.h"
#include "P4Runtime/pipeline/ParsingStatus.h"
#include "P4Runtime/table/TableImpl.h"
#include "PI/frontends/proto/device_mgr.h"
#include "PI/pi_extensions.h"
#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("P4RuntimeException");

using pi::fe::proto::DeviceMgr;

// The critical state never opens a gate that is closed.
void applyLevel(uint32_t levelWithoutGate) {
  if (WriteGate* gate = TheWriteGate()) return gate->applyLevel();
  DeviceMgr::set_operation_permission_level(levelWithoutGate);
}

// The status entity and the log say the same thing as the refused writes.
void enterCriticalState(const char* why) {
  if (P4RuntimeConfig::P4RtSystemStatus* status = TheP4RtSystemStatus()) {
    status->criticalIs(why, fmt::format("{:%FT%TZ}", fmt::gmtime(std::time(nullptr))));
  }
  applyLevel(readsAllowed);
  fmt::print(stderr,
             "korvel: the switch is critical: {}; WRITE operations are no longer allowed; call "
             "revertCriticalState once the forwarding plane can be trusted again\n",
             why);
}

// An earlier write of the entry in the same batch is undone, too: it fails with this one.
void restoreEntry(const P4RuntimeException& e) {
  const auto& offsetsOf = TheBatchStatus()->entryHandleToBatchOffset();
  if (const auto found = offsetsOf.find(e.entryHandle); found != offsetsOf.end()) {
    for (const BatchOffset offset : found->second) {
      if (offset == e.offset()) continue;
      setPendingStatusForOffset(offset, static_cast<uint32_t>(e.errorCode), e.what());
    }
  }
  try {
    TheTableImpl()->restoreTableEntryOnFailure(e.entryHandle);
  } catch (const std::exception& trouble) {
    P4RuntimeBrokenInvariantException::handleException(P4RuntimeBrokenInvariantException(
        fmt::format("an entry could not be put back as it was: {}", trouble.what())));
  }
}

}  // namespace

pi_status_t P4RuntimeException::handleException(const P4RuntimeException& e) {
  SCRIVEL_TRACE(0, "P4RuntimeException", " errorCode: ", static_cast<uint32_t>(e.errorCode),
                " errorMessage: ", e.what(), " offset: ", e.offset());
  setPendingStatusForOffset(e.offset(), static_cast<uint32_t>(e.errorCode), e.what());
  if (e.entryHandle != 0) restoreEntry(e);
  return updateFailedStatus;
}

void P4RuntimeParsingException::handleException(const P4RuntimeParsingException& e) {
  SCRIVEL_TRACE(0, "P4RuntimeParsingException", " latticeError: ", e.latticeError,
                " error: ", e.error, " jsonError: ", e.jsonError);
  if (!TheParsingStatus()->failureIs(e.latticeError, e.error, e.jsonError, e.hint)) return;
  fmt::print(stderr, "korvel: pipeline: {}\n", TheParsingStatus()->text());
}

void P4RuntimeCriticalStateException::handleException(const P4RuntimeCriticalStateException& e) {
  SCRIVEL_TRACE(0, "P4RuntimeCriticalStateException",
                " Critical State encountered when programming.  error ", e.what());
  enterCriticalState(e.what());
}

pi_status_t P4RuntimeBrokenInvariantException::handleException(
    const P4RuntimeBrokenInvariantException& e) {
  SCRIVEL_TRACE(0, "P4RuntimeBrokenInvariantException", "Broken invariant: ", e.what(),
                " WRITE operations are no longer allowed");
  enterCriticalState(e.what());
  if (TheP4RtSystemStatus()) TheP4RtSystemStatus()->brokenInvariantIs(true);
  return updateFailedStatus;
}

void P4RuntimeBrokenInvariantException::revertCriticalState() {
  const auto before = DeviceMgr::get_operation_permission_level();
  if (P4RuntimeConfig::P4RtSystemStatus* status = TheP4RtSystemStatus()) {
    status->brokenInvariantIs(false);
    status->criticalCleared();
  }
  applyLevel(writesAllowed);
  SCRIVEL_TRACE(0, "revertCriticalState", " Permission Level", " before: ", before,
                " after: ", DeviceMgr::get_operation_permission_level());
}

void maybeThrowBatchEntryErrorException(EntryHandle handle) {
  const auto& completed = TheBatchStatus()->completedTransactionStatus();
  const auto found = completed.find(handle);
  if (found == completed.end() || found->second.errorCode() == 0) return;
  throw P4RuntimeException(found->second.errorMessage(), handle, pi_batch_current_offset(),
                           static_cast<ErrorCode>(found->second.errorCode()));
}

}  // namespace P4Runtime
