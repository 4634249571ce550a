// Runs an update of an entity that is no table entry: the row of the entity itself, and the rows of
// its list.
#pragma once

#include "PI/frontend/check/CheckedUpdate.h"
#include "PI/frontend/target/TargetCalls.h"

namespace pi::fe::proto {

// `former` is the entry under its key now, null for none.
void doRunEntity(const CheckedUpdate& update, const Entry* former, TargetCalls* calls);

}  // namespace pi::fe::proto
