// The members and the group behind a one-shot action set: made, changed in place, and deleted
// together with the entry.
#pragma once

#include "PI/frontend/target/TargetCalls.h"

namespace pi::fe::proto {

// For an entry with a set: its group and members come to be as the set says. What `former`, which
// may be null, has of them is used again, changed only where it differs. Enters the handles.
void doBuildHiddenGroup(const TablePlan& table, const Entry* former, Entry* entry,
                        TargetCalls* calls);

// Once no entry points there any more.
void doDeleteHiddenGroup(uint32_t profileId, const Entry& former, TargetCalls* calls);

}  // namespace pi::fe::proto
