// Threads of the server, where no call can carry an exception to a client.
#pragma once

#include <thread>
#include <utility>

#include "PI/core/EndProcess.h"

namespace pi::server {

// A thread that runs `body`; an exception that leaves it ends the process. Throws
// std::system_error when the system has no thread to give.
template <typename Body>
std::thread startThread(Body body) {
  return std::thread(
      [body = std::move(body)]() mutable { core::runOrEndProcess(std::move(body)); });
}

}  // namespace pi::server
