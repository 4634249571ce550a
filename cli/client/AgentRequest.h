// Has the running agent execute a command that changes its state.
#pragma once

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

// The agent refused the command or failed at it; the message is its own.
class CommandRefused : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Places a request, waits for its answer, removes both and returns the answer's text. Throws
// CommandRefused, and Orrery::ClientError without an answer within `timeout`.
std::string execute(const std::string& stateDirectory, const std::string& command,
                    const std::vector<std::string>& arguments,
                    std::chrono::milliseconds timeout = std::chrono::seconds(30));
