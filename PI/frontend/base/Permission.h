// The permission level of this process: which calls of controllers the agent allows.
#pragma once

#include <chrono>

#include "PI/pi_base.h"

namespace pi::fe::proto {

// 0 neither reads nor writes, 1 reads only, 2 reads and writes (initially). Any thread.
pi_operation_permission_level_t operationPermissionLevel();
void operationPermissionLevelIs(pi_operation_permission_level_t level);
// While a pipeline takes the place of another, level 0 is sure to end soon. Any thread.
void pipelineChangingIs(bool isChanging);

// Waits for the end of a change of the pipeline, if one is running, but no longer than `patience`.
// Hold no lock.
void awaitPipelineChange(std::chrono::milliseconds patience);
// Throw a Refusal (FAILED_PRECONDITION; UNAVAILABLE while the pipeline changes).
void requireReadPermission();
void requireWritePermission();
void requirePacketPermission();  // to send packets: reads are allowed, if not writes

}  // namespace pi::fe::proto
