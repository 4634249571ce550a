// How a PI entry point that may refuse an update runs its body.
#pragma once

#include <exception>

#include "P4Runtime/pi/P4RuntimeException.h"
#include "PI/pi_extensions.h"
#include "platform/vela/ActivityLock.h"

namespace P4Runtime {

// Runs `body` under the activity lock; no exception escapes into C.
template <typename Body>
pi_status_t entered(Body body) {
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

}  // namespace P4Runtime
