// The batch status protocol: the status of a write batch before and after it is settled. The
// functions work on the process's batch status and tables; call them with the activity lock held.
#pragma once

#include <string>

#include "P4Runtime/companion/ResourceId.h"
#include "P4Runtime/pi/StatusVector.h"
#include "PI/pi.h"

namespace P4Runtime {

// Remembers the error at the offset of the running batch until `_pi_update_pending_status`.
void setPendingStatusForOffset(unsigned int offset, unsigned int errorCode, std::string message);

// As BatchSettling::markNotPending().
StatusIter markStatusEntryNotPending(StatusVector& statusVector, EntryHandle handle,
                                     uint32_t errorCode, const std::string& message);
// As BatchSettling::maybeHandleTimedOut().
void maybeHandleTimedOutStatusEntries(StatusVector& statusVector);

// As with the batch status that it is given.
void maybePretendHwProgramming();

// "{key=value,key=value}", for traces.
std::string piAssignExtraToString(const pi_assign_extra_t* extra);

}  // namespace P4Runtime
