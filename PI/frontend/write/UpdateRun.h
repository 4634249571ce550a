// Runs one update: chooses its target calls, and makes them.
#pragma once

#include "PI/frontend/check/CheckedUpdate.h"
#include "PI/frontend/store/EntryStore.h"
#include "PI/frontend/target/TargetCalls.h"

namespace pi::fe::proto {

// Runs an update that has been checked and prepared, and enters the target's handles into it, and
// the changes of rows of watch ports, which need the handles.
// `former` is the entry under its key now, null for an INSERT.
void doRunUpdate(const EntryStore& store, CheckedUpdate* update, const Entry* former,
                 TargetCalls* calls);

}  // namespace pi::fe::proto
