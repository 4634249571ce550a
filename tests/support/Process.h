// A child process of a test: started, watched, killed, and never left behind.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/Waiting.h"

namespace TestSupport {

struct ExitStatus {
  int code = -1;   // of exit(); -1 when a signal ended it
  int signal = 0;  // that ended it; 0 when it exited
  friend bool operator==(const ExitStatus&, const ExitStatus&) = default;
};
void PrintTo(const ExitStatus& status, std::ostream* out);

// Not thread-safe. The child also dies with the thread that made it (PR_SET_PDEATHSIG), so make it
// on one that outlives it.
class Process {
 public:
  // Standard input is empty; both outputs go to the end of the files named ("": to ours).
  // `environment` holds NAME=VALUE, added to ours. Throws std::system_error.
  Process(const std::vector<std::string>& arguments, const std::string& outputPath,
          const std::string& errorPath, const std::vector<std::string>& environment = {});
  ~Process();  // kills it when it still runs
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t pid() const { return pid_; }
  int descriptor() const { return descriptor_; }  // a pidfd: readable once the process has ended
  bool running() { return !exitStatus(std::chrono::microseconds(0)); }
  void signal(int number);
  // Empty when it still runs after `timeout`.
  std::optional<ExitStatus> exitStatus(std::chrono::microseconds timeout = patience);
  void kill();  // SIGKILL, and waits for its end

 private:
  const pid_t pid_;
  const int descriptor_;
  std::optional<ExitStatus> exitStatus_;
};

struct CommandResult {
  ExitStatus exit;
  std::string output;
  std::string error;
};
// Runs a command to its end; kills one that takes longer than `timeout`.
CommandResult run(const std::vector<std::string>& arguments,
                  const std::vector<std::string>& environment = {},
                  std::chrono::milliseconds timeout = patience);

// The folder of the programs under test: that of the test's own program.
std::string binaryPath(const std::string& name);
std::string fileText(const std::string& path);  // "" when it cannot be read
// A TCP port of 127.0.0.1 that nobody uses, outside the range from which clients get theirs.
uint16_t freePort();
// Resident memory in bytes; 0 when the process is gone.
size_t residentBytes(pid_t pid);

}  // namespace TestSupport
