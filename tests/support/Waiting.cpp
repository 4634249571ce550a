// See Waiting.h.
#include "tests/support/Waiting.h"

#include <poll.h>

namespace TestSupport {

bool waitUntil(const std::function<bool()>& condition, int processDescriptor,
               std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    // The interval between two questions ends early when the process does.
    pollfd ended{.fd = processDescriptor, .events = POLLIN, .revents = 0};
    if (poll(&ended, 1, 5) > 0) return condition();
  }
  return true;
}

}  // namespace TestSupport
