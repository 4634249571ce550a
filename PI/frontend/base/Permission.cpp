// The permission level of this process: which calls of controllers the agent allows.
#include "PI/frontend/base/Permission.h"

#include <atomic>

#include "PI/frontend/base/Refusal.h"

namespace pi::fe::proto {

namespace {
std::atomic<pi_operation_permission_level_t> level_{2};
}

pi_operation_permission_level_t operationPermissionLevel() { return level_.load(); }

void operationPermissionLevelIs(pi_operation_permission_level_t level) { level_.store(level); }

void requireReadPermission() {
  if (level_.load() != 0) return;
  refuse(code::failedPrecondition,
         "reads and writes are not allowed: the switch has no usable pipeline now");
}

void requirePacketPermission() {
  if (level_.load() != 0) return;
  refuse(code::failedPrecondition,
         "packets are not sent: the switch has no usable pipeline now; wait until it has");
}

void requireWritePermission() {
  requireReadPermission();
  if (level_.load() > 1) return;
  refuse(code::failedPrecondition, "WRITE operation is not allowed due to critical state");
}

}  // namespace pi::fe::proto
