#include "P4Runtime/pi/BatchWait.h"

#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>

#include "platform/scrivel/Trace.h"
#include "platform/vela/ActivityLock.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("KorvelPiImpl");

constexpr double longestTimeout = 24 * 60 * 60;  // seconds

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

}  // namespace

int BatchWait::selectUntilTimeout(int notifyFd) const {
  timeval timeout{};
  // Operators may set any number.
  timeout.tv_sec =
      static_cast<time_t>(std::clamp(batchStatus_.batchTimeout().seconds, 0.0, longestTimeout));
  const Vela::ActivityLockReleased released;
  return selectReadable(notifyFd, timeout);
}

// `completedOps` gets the count of the reports that have come in.
BatchWait::TimeoutOrReady BatchWait::waitForBatchStatusActivityOrTimeout(uint64_t* completedOps) {
  const int notifyFd = batchStatus_.notifyFd();
  const int ready = selectUntilTimeout(notifyFd);
  if (ready == -1) assert(0 && "select failed");
  if (ready == 0) return TimeoutOrReady::timeout;
  uint64_t count = 0;
  if (read(notifyFd, &count, sizeof count) != sizeof count) return TimeoutOrReady::ready;
  const uint64_t baseline = batchStatus_.completedOperationBaseline();
  *completedOps = count >= baseline ? count - baseline : count;
  return TimeoutOrReady::ready;
}

void BatchWait::waitForStatusUpdates(uint64_t pending) {
  uint64_t completed = 0;
  if (pending > 0) batchStatus_.lookForReports();
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

}  // namespace P4Runtime
