// The last resort where neither a caller nor a client can be told of an exception.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <exception>

namespace pi::core {

// Runs `body`. An exception that leaves it, such as bad_alloc, ends the process with one line on
// standard error and status 1: its supervisor starts it again, from the stored state.
template <typename Body>
void runOrEndProcess(Body body) noexcept {
  try {
    body();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s: cannot go on: %s; start it again\n", program_invocation_short_name,
                 e.what());
    _exit(1);
  }
}

}  // namespace pi::core
