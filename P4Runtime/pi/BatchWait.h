// The wait for the forwarding agents' reports on a batch.
#pragma once

#include <cstdint>

#include "P4Runtime/companion/BatchStatus.h"

namespace P4Runtime {

// Call with the activity lock held; waiting gives it up wholly.
class BatchWait {
 public:
  // `batchStatus` outlives this.
  explicit BatchWait(BatchStatus& batchStatus) : batchStatus_(batchStatus) {}

  // Until `pending` operations have completed, or one wait for the next has timed out.
  void waitForStatusUpdates(uint64_t pending);

 private:
  enum class TimeoutOrReady { timeout, ready };

  int selectUntilTimeout(int notifyFd) const;
  TimeoutOrReady waitForBatchStatusActivityOrTimeout(uint64_t* completedOps);

  BatchStatus& batchStatus_;
};

}  // namespace P4Runtime
