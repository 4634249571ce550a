// The status vector of a write batch, as `_pi_update_pending_status` and the exception handlers
// fill it in. Call with the activity lock held.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "P4Runtime/companion/ResourceId.h"

namespace p4::v1 {
class Error;
}

namespace P4Runtime {

// Per update of a batch that is not known to be programmed, in ascending order of its offset: its
// error, whose canonical code is 4 while the update is pending.
using StatusVector = std::vector<std::pair<uint32_t, p4::v1::Error>>;
using StatusIter = StatusVector::iterator;

// Remembers, until `_pi_update_pending_status`, what went wrong at the offset while the batch ran.
void setPendingStatusForOffset(unsigned int offset, unsigned int errorCode, std::string message);

// The element at `offset`, or the end.
StatusIter statusIterAtOffset(StatusVector& statusVector, BatchOffset offset);

// Settles a handle's element: removes it when programmed (error code 0), else fills in the error;
// moves the cached entry on and tells the PI library. Answers the position after it. Throws
// std::out_of_range when the batch has no offset for the handle.
StatusIter markStatusEntryNotPending(StatusVector& statusVector, EntryHandle handle,
                                     uint32_t errorCode, const std::string& message);

// Rolls the batch back and throws P4RuntimeCriticalStateException when an element is pending still.
void maybeHandleTimedOutStatusEntries(StatusVector& statusVector);

// Fault injection for tests of controllers: answers for the forwarding plane.
void maybePretendHwProgramming();

}  // namespace P4Runtime
