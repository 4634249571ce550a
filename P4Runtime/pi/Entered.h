// How a PI entry point that may refuse an update runs its body.
#pragma once

#include "P4Runtime/pi/P4RuntimeException.h"
#include "platform/vela/ActivityLock.h"

namespace P4Runtime {

// Runs `body` under the activity lock; no refusal escapes into C.
template <typename Body>
pi_status_t entered(Body body) {
  const Vela::ActivityLock lock;
  try {
    body();
    return PI_STATUS_SUCCESS;
  } catch (const P4RuntimeException& e) {
    return P4RuntimeException::handleException(e);
  }
}

}  // namespace P4Runtime
