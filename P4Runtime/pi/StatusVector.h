// The status vector of a write batch: the status, for the PI library, of each update that is not
// known to be programmed.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "P4Runtime/companion/ErrorCode.h"
#include "P4Runtime/companion/ResourceId.h"
#include "p4/v1/p4runtime.pb.h"

namespace P4Runtime {

// In ascending order of the updates' offsets: the error of each, whose canonical code is
// DEADLINE_EXCEEDED while the update is pending.
using StatusVector = std::vector<std::pair<uint32_t, p4::v1::Error>>;
using StatusIter = StatusVector::iterator;

bool isPending(const p4::v1::Error& error);

// The element at `offset`, or the end.
StatusIter statusIterAtOffset(StatusVector& statusVector, BatchOffset offset);

// Fills in the element's error; an element that succeeded (error code 0) leaves the vector.
void settleStatusEntry(StatusVector& statusVector, StatusIter element, uint32_t errorCode,
                       const std::string& message);

// Copies the errors that were known while the batch ran, up to the first one without an element.
void copyKnownErrors(const StatusVector& known, StatusVector& statusVector);

}  // namespace P4Runtime
