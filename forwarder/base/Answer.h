// How the forwarder answers a command: with a text at once or later, or with a refusal.
#pragma once

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>

namespace Forwarder {

// The command line or a control command is wrong; the message names the expected words. A function
// that throws it has changed nothing.
class CommandError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Answer {
  bool ok = true;
  std::string text;  // lines, each ended; or, when not ok, the one-line reason
  // When set, the command takes its time: call this until it returns the complete answer.
  std::function<std::optional<Answer>()> later;
};

}  // namespace Forwarder
