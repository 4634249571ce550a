// Runs an update of an entity that is no table entry: the row of the entity itself, and the rows of
// its list.
#pragma once

#include "PI/frontend/check/CheckedUpdate.h"
#include "PI/frontend/target/TargetCalls.h"

namespace pi::fe::proto {

// The changes that come with the update in other tables.
void doRunAlso(const CheckedUpdate& update, TargetCalls* calls);

// `former` is the entry under its key now, null for none.
void doRunEntity(const CheckedUpdate& update, const Entry* former, TargetCalls* calls);

}  // namespace pi::fe::proto
