// A whole switch under test: agent and forwarder as processes, and a controller of theirs.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tests/e2e/Router.h"
#include "tests/support/AgentProcess.h"
#include "tests/support/ForwarderProcess.h"
#include "tests/support/StoredState.h"
#include "tests/support/TempDir.h"
#include "tests/support/TestController.h"
#include "tests/support/Views.h"

class Switch {
  // Before the processes, so that it is removed after their end.
  const TestSupport::TempDir directory_;

 public:
  struct Options {
    double batchTimeout = 20;  // seconds
    std::vector<std::string> forwarder;
    uint64_t deviceId = 1;
    int64_t routeTableSize = 0;  // 0: as the pipeline file says
    std::string pluginDirectory;
    bool enabled = true;
    unsigned journalMib = 0;
    std::vector<std::string> agent;
    unsigned descriptorLimit = 0;           // of the agent; 0: that of the test
    std::map<uint32_t, std::string> ports;  // mapped to interfaces
    std::function<void(TestSupport::Pipeline&)> pipelineChange;
    std::string orrery;        // a state database outside, in place of the configuration file
    std::string pipelineFile;  // of another program than the router; empty: the router's
  };
  Switch() : Switch(Options{}) {}
  explicit Switch(const Options& options);  // starts nothing
  ~Switch();                                // shows the processes' words if the test has failed

  // Each returns true once its process is up and does its work.
  bool start();  // agent, forwarder and controller
  bool startAgent();
  bool startForwarder();     // to a running agent
  bool connectController();  // becomes primary
  bool restartAgent();       // SIGKILL, then all that start() does; the forwarder stays

  TestSupport::AgentProcess agent;
  TestSupport::ForwarderProcess forwarder;
  TestSupport::TestController& controller() { return *controller_; }
  uint64_t electionId() const { return electionId_; }  // the controller's
  // Set it before start(): called for each packet-in, on the stream's thread.
  std::function<void(const p4::v1::PacketIn&)> onPacketIn;
  const TestSupport::Pipeline& pipeline() const { return pipeline_; }
  const TestSupport::TempDir& directory() const { return directory_; }

  TestSupport::View controllerView();  // all tables and profiles, read as a controller does
  TestSupport::WriteOutcome write(const std::vector<p4::v1::Update>& updates) {
    return controller_->write(updates);
  }
  TestSupport::ReadOutcome routes();
  p4::v1::TableEntry route(uint32_t i, uint32_t nexthop) const {
    return Router::route(pipeline_, i, nexthop);
  }
  TestSupport::WriteOutcome insertRoutes(uint32_t from, uint32_t to, uint32_t nexthop);

  // "" when controller, caches, rows and forwarder agree and every record is stable, or do so
  // within a test's patience; else the differences. Only while nobody writes.
  std::string disagreement();

 private:
  std::string disagreementNow();

  TestSupport::Pipeline pipeline_;
  std::unique_ptr<TestSupport::TestController> controller_;
  uint64_t electionId_ = 1;
};
