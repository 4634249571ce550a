// What is measured: a switch of agent and forwarder, and the ceiling beside it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/AgentProcess.h"
#include "tests/support/ForwarderProcess.h"
#include "tests/support/Pipeline.h"
#include "tests/support/TempDir.h"
#include "tests/support/TestController.h"

namespace Bench {

struct Memory {
  size_t privateBytes = 0;   // of the agent, pages of the state directory not counted
  size_t residentBytes = 0;  // of the agent, those that it has touched counted
  size_t stateBytes = 0;     // allocated in the state directory
};

// Throws std::runtime_error when a process does not come up; its output is in the message.
class MeasuredSwitch {
 public:
  // `pipelineFile`: with a table of routes, whose size is raised to `tableSize`.
  MeasuredSwitch(const std::string& pipelineFile, int64_t tableSize);

  TestSupport::TestController& controller() { return *controller_; }
  p4::v1::TableEntry route(uint64_t i, uint32_t nexthop) const;
  p4::v1::TableEntry allRoutes() const;
  Memory memory() const;
  // SIGKILL, start, and the time from then until a Read of route 0 is served.
  double restartSeconds();

 private:
  void connect();

  const TestSupport::TempDir directory_;
  TestSupport::Pipeline pipeline_;
  TestSupport::AgentProcess agent_;
  TestSupport::ForwarderProcess forwarder_;
  std::unique_ptr<TestSupport::TestController> controller_;
  uint64_t electionId_ = 1;
};

class CeilingProcess {
 public:
  CeilingProcess();
  TestSupport::TestController& controller() { return *controller_; }

 private:
  const TestSupport::TempDir directory_;
  std::unique_ptr<TestSupport::Process> process_;
  std::unique_ptr<TestSupport::TestController> controller_;
};

}  // namespace Bench
