// The members and the group behind a one-shot action set: made, changed in place, and deleted
// together with the entry.
#pragma once

#include "PI/frontend/target/TargetCalls.h"

namespace pi::fe::proto {

// For an entry with a set: makes the group and members of the set. Those of `former` (may be null)
// are used again, and only the differences are changed. Enters the handles into `entry`.
void doBuildHiddenGroup(const TablePlan& table, const Entry* former, Entry* entry,
                        TargetCalls* calls);

// To be called once no entry points there any more.
void doDeleteHiddenGroup(uint32_t profileId, const Entry& former, TargetCalls* calls);

}  // namespace pi::fe::proto
