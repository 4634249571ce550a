// The permission level of this process: which calls of controllers the agent allows.
#include "PI/frontend/base/Permission.h"

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "PI/frontend/base/Refusal.h"

namespace pi::fe::proto {

namespace {

std::atomic<pi_operation_permission_level_t> level_{2};

struct Change {
  std::mutex mutex;  // guards isRunning; for waiting
  std::condition_variable ended;
  std::atomic<bool> isRunning{false};
};

Change& change() {
  static Change* const one = new Change;  // threads may outlive static destruction
  return *one;
}

void requireLevel(const char* why) {
  if (level_.load() != 0) return;
  if (change().isRunning) {
    refuse(code::unavailable, "the device is getting a new pipeline; try again in a second");
  }
  refuse(code::failedPrecondition, why);
}

}  // namespace

pi_operation_permission_level_t operationPermissionLevel() { return level_.load(); }

void operationPermissionLevelIs(pi_operation_permission_level_t level) { level_.store(level); }

void pipelineChangingIs(bool isChanging) {
  const std::lock_guard lock(change().mutex);
  change().isRunning = isChanging;
  change().ended.notify_all();
}

void awaitPipelineChange(std::chrono::milliseconds patience) {
  if (!change().isRunning) return;
  std::unique_lock lock(change().mutex);
  change().ended.wait_for(lock, patience, [] { return !change().isRunning; });
}

void requireReadPermission() {
  requireLevel("reads and writes are not allowed: the switch has no usable pipeline now");
}

void requirePacketPermission() {
  requireLevel("packets are not sent: the switch has no usable pipeline now; wait until it has");
}

void requireWritePermission() {
  requireReadPermission();
  if (level_.load() > 1) return;
  refuse(code::failedPrecondition, "WRITE operation is not allowed due to critical state");
}

}  // namespace pi::fe::proto
