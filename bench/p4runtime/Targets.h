// The targets measured: a switch of agent and forwarder, and the ceiling beside it.
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
  size_t privateBytes = 0;    // of the agent, pages of the state directory not counted
  size_t forwarderBytes = 0;  // of the forwarder, likewise private
  size_t stateBytes = 0;      // allocated in the state directory

  size_t allBytes() const { return privateBytes + forwarderBytes + stateBytes; }
};

Memory grownSince(const Memory& before, const Memory& now);

// Room for so many; 0: as the pipeline file says.
struct Sizes {
  int64_t routes = 0;
  int64_t references = 0;  // entries that name groups, or have sets
  int64_t members = 0;     // over all groups and sets
  int64_t exact = 0;
};

// Throws std::runtime_error when a process does not come up; its output is in the message.
class MeasuredSwitch {
 public:
  // `pipelineFile`: of the router example, or of the one table with exact matches.
  MeasuredSwitch(const std::string& pipelineFile, const Sizes& sizes);

  TestSupport::TestController& controller() { return *controller_; }
  std::string address() const { return agent_.address(); }
  // Of the one table: a key of 32 bits that follows from `i` alone, a value of 64 bits.
  p4::v1::TableEntry exact(uint64_t i, uint64_t round) const;
  static uint64_t exactNumber(const p4::v1::TableEntry& entry);  // its `i`
  // Of the router.
  p4::v1::TableEntry route(uint64_t i, uint32_t nexthop) const;
  p4::v1::TableEntry allRoutes() const;
  // Of its WCMP profile; members, groups and its table's entries are counted from 0.
  p4::v1::ActionProfileMember member(uint64_t i) const;
  p4::v1::ActionProfileGroup group(uint64_t i, uint64_t firstMember, uint64_t members) const;
  p4::v1::TableEntry toGroup(uint64_t i, uint64_t group) const;
  p4::v1::TableEntry oneShot(uint64_t i, uint64_t elements) const;
  Memory memory();
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
