// The permission level of this process: which calls of controllers the agent allows.
#pragma once

#include "PI/pi_base.h"

namespace pi::fe::proto {

// 0 neither reads nor writes, 1 reads only, 2 reads and writes (initially). Any thread.
pi_operation_permission_level_t operationPermissionLevel();
void operationPermissionLevelIs(pi_operation_permission_level_t level);

// Throw a Refusal (FAILED_PRECONDITION).
void requireReadPermission();
void requireWritePermission();
void requirePacketPermission();  // to send packets: reads are allowed, if not writes

}  // namespace pi::fe::proto
