#include "P4Runtime/pi/PretendedProgramming.h"

#include <cassert>

#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("KorvelPiImpl");

void pretendReport(BatchStatus& batchStatus, EntryHandle handle, BatchOffset offset) {
  const bool fails = batchStatus.pretendHwProgrammingFailed() &&
                     offset == batchStatus.pretendHwProgrammingFailedOffset();
  SCRIVEL_TRACE(1, "maybePretendHwProgramming", " Created statusEntry for entryHandle: ", handle,
                fails ? " Pretend failure for offset " : " Pretend success for offset ", offset);
  BatchStatusEntry entry(handle,
                         static_cast<uint16_t>(fails ? ErrorCode::hardwareError : ErrorCode::none));
  entry.setErrorMessage();
  batchStatus.completedTransactionStatusIs(entry);
}

}  // namespace

void maybePretendHwProgramming(BatchStatus& status) {
  if (!status.pretendHwProgramming()) return;
  BatchStatus* const batchStatus = &status;
  assert(!batchStatus->pretendHwProgrammingFailed() ||
         !batchStatus->pretendHwProgrammingTimeout() ||
         (batchStatus->pretendHwProgrammingFailedOffset() !=
          batchStatus->pretendHwProgrammingTimeoutOffset()));
  for (const auto& [handle, written] : status.written()) {
    const BatchOffset offset = written.lastOffset;
    if (status.pretendHwProgrammingTimeout() &&
        offset == status.pretendHwProgrammingTimeoutOffset()) {
      status.pretendSilence(handle);  // so that the time-out takes its course
    } else {
      pretendReport(status, handle, offset);
    }
  }
}

}  // namespace P4Runtime
