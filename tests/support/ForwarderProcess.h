// The software forwarding agent as a process of its own.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/Process.h"

namespace TestSupport {

class ForwarderProcess {
 public:
  // `options`: as on its command line, e.g. {"--fail-table", "ipv4_route"}. Does not start it.
  explicit ForwarderProcess(std::string stateDirectory, std::vector<std::string> options = {});

  void start();
  void kill();       // SIGKILL
  bool waitReady();  // it serves `ctl`
  bool waitAttached();
  Process& process() { return *process_; }
  std::string output() const;  // both outputs of all starts

  // Runs `korvel-forwarder ctl ARGUMENTS... --state-dir DIRECTORY`.
  CommandResult ctl(std::vector<std::string> arguments) const;
  // The counts of `ctl stats`, by name. Throws std::runtime_error when there is no reply.
  std::map<std::string, std::string> stats() const;
  uint64_t programmedChanges() const;  // rows inserted, replaced and deleted since its start

 private:
  const std::string stateDirectory_;
  const std::vector<std::string> options_;
  std::unique_ptr<Process> process_;
};

}  // namespace TestSupport
