// A Redis of a test's own, in its folder.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tests/support/Process.h"

namespace TestSupport {

// Listens on a Unix socket, keeps nothing on disk, and ends with the test at the latest.
class RedisServer {
 public:
  static bool installed();  // redis-server and redis-cli

  // Starts it, with more arguments, and waits until it serves: throws std::runtime_error when it
  // does not. `folder` must outlive it.
  explicit RedisServer(const std::string& folder, std::vector<std::string> arguments = {});

  std::string address(const std::string& prefix) const;
  void start();  // again, empty
  void kill() { process_->kill(); }
  void stall() { process_->signal(SIGSTOP); }
  void goOn() { process_->signal(SIGCONT); }

  // Runs a command with redis-cli; returns its output without the last line end.
  std::string run(std::vector<std::string> command) const;
  // The value of a field, "" when it is not there.
  std::string field(const std::string& key, const std::string& name) const {
    return run({"HGET", key, name});
  }

 private:
  const std::string folder_;
  const std::vector<std::string> arguments_;
  std::unique_ptr<Process> process_;
};

}  // namespace TestSupport
