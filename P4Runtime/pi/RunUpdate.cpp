#include "P4Runtime/pi/RunUpdate.h"

#include <fmt/format.h>

#include "P4Runtime/companion/BatchStatus.h"
#include "P4Runtime/pi/BatchEntries.h"
#include "P4Runtime/pi/KorvelPiImpl.h"
#include "P4Runtime/pi/PiContext.h"
#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("P4RuntimeException");

// An earlier write of the entry in the same batch is undone, too: it fails with this one.
void failEarlierWrites(const BatchStatus& batchStatus, const P4RuntimeException& e) {
  for (const BatchOffset offset : batchStatus.offsetsOf(e.entryHandle)) {
    if (offset == e.offset()) continue;
    setPendingStatusForOffset(offset, static_cast<uint32_t>(e.errorCode), e.what());
  }
}

void restoreEntry(BatchEntries& entries, EntryHandle handle) {
  try {
    entries.restoreTableEntryOnFailure(handle);
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
  if (e.entryHandle != 0) {
    failEarlierWrites(*TheBatchStatus(), e);
    restoreEntry(*TheBatchEntries(), e.entryHandle);
  }
  return updateFailedStatus;
}

void maybeThrowBatchEntryErrorException(EntryHandle handle) {
  const auto completed = TheBatchStatus()->completedTransactionStatus(handle);
  if (!completed || completed->errorCode() == 0) return;
  throw P4RuntimeException(completed->errorMessage(), handle, pi_batch_current_offset(),
                           static_cast<ErrorCode>(completed->errorCode()));
}

std::string_view currentMetadata() {
  const char* metadata = nullptr;
  size_t size = 0;
  pi_batch_current_metadata(&metadata, &size);
  return {metadata, size};
}

}  // namespace P4Runtime
