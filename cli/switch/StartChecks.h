// What a switch needs to begin with, looked at before anything is started.
#pragma once

#include <stdexcept>

#include "cli/switch/SwitchOptions.h"

// The command line cannot be right, though its words are.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  static constexpr int status = 2;
};

// The program is a file with a JSON object, and this process may use interfaces. Throws UsageError,
// or std::runtime_error for want of rights; the message says what to do.
void requireStartable(const SwitchOptions& options);

// Controllers can connect there. Throws std::runtime_error: the address is another machine's, or
// the port is in use.
void requireListening(const ServerAddress& address);
