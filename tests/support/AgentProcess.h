// The agent as a process of its own: started with a configuration, killed, and started again.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "p4/v1/p4runtime.pb.h"
#include "tests/support/Process.h"

namespace TestSupport {

struct AgentOptions {
  std::string stateDirectory;
  std::string pipelineFile;
  uint16_t port = 0;  // 0: one that is free
  uint64_t deviceId = 1;
  double batchTimeout = 20;   // seconds; only a test of the time-out wants a short one
  std::string configuration;  // JSON that stands in for the one made from the above
  std::string orrery;         // a state database outside, in place of the configuration file
  std::vector<std::string> environment;
  std::string pluginDirectory;  // "": the one beside the agent's library
  bool enabled = true;
  unsigned journalMib = 0;                // in the configuration made
  std::map<uint32_t, std::string> ports;  // mapped to interfaces, in the configuration made
  std::vector<std::string> arguments;     // more of them
  unsigned descriptorLimit = 0;           // soft and hard; 0: that of the test
};

class AgentProcess {
 public:
  explicit AgentProcess(AgentOptions options);  // does not start it
  ~AgentProcess();

  const AgentOptions& options() const { return options_; }
  std::string configuration() const;  // JSON, as its file has it
  std::string address() const;
  void portIs(uint16_t port) { options_.port = port; }  // for address() and the next start

  void start();
  void kill();  // SIGKILL
  // Whether it serves a Read, which it does once all is restored. `query`: the entries to read; by
  // default all tables.
  bool waitServing(const p4::v1::TableEntry& query = {});
  bool startServing();  // both; its output is in output()
  Process& process() { return *process_; }
  pid_t pid() const { return process_->pid(); }
  std::string output() const;  // both outputs of all starts

  // Runs `korvel ARGUMENTS... --state-dir DIRECTORY`.
  CommandResult korvel(std::vector<std::string> arguments) const;

 private:
  AgentOptions options_;
  std::string configPath() const;
  std::string outputPath() const;
  std::unique_ptr<Process> process_;
};

}  // namespace TestSupport
