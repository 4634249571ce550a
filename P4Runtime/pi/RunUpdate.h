// How a PI entry point runs an update that may be refused.
#pragma once

#include <exception>
#include <string_view>

#include "P4Runtime/pi/P4RuntimeException.h"
#include "PI/pi_extensions.h"
#include "platform/vela/ActivityLock.h"

namespace P4Runtime {

// Runs `body` under the activity lock; no exception escapes into C.
template <typename Body>
pi_status_t runUpdate(Body body) {
  const Vela::ActivityLock lock;
  try {
    body();
    return PI_STATUS_SUCCESS;
  } catch (const P4RuntimeException& e) {
    return P4RuntimeException::handleException(e);
  } catch (const std::exception& e) {  // of a library; nothing of the update stands yet
    return P4RuntimeException::handleException(
        {e.what(), 0, pi_batch_current_offset(), ErrorCode::internalError});
  }
}

// Runs `body`; a full store fails the update and rolls its row back.
template <typename Body>
void storeOrFail(EntryHandle handle, Body body) {
  try {
    body();
  } catch (const std::exception& e) {
    throw P4RuntimeException(e.what(), handle, pi_batch_current_offset(),
                             ErrorCode::outOfResources);
  }
}

// Throws the error that the batch has already recorded for the handle, if any.
void maybeThrowBatchEntryErrorException(EntryHandle handle);

// The bytes that the PI library wants kept with the object that it is writing.
std::string_view currentMetadata();

}  // namespace P4Runtime
