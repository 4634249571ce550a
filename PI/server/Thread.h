// Threads of the server, where no call can carry an exception to a client.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <exception>
#include <thread>
#include <utility>

namespace pi::server {

// A thread that runs `body`. An exception that leaves it, such as bad_alloc, ends the process with
// one line on standard error and status 1. Throws std::system_error when the system has no thread
// to give.
template <typename Body>
std::thread startThread(Body body) {
  return std::thread([body = std::move(body)]() noexcept {
    try {
      body();
    } catch (const std::exception& e) {
      std::fprintf(stderr, "%s: cannot go on: %s\n", program_invocation_short_name, e.what());
      _exit(1);
    }
  });
}

}  // namespace pi::server
