// The forwarder as a process, followed by a database in this one.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <thread>

#include "platform/brine/Store.h"
#include "platform/lattice/Database.h"
#include "platform/vela/ActivityLock.h"
#include "platform/vela/ReactorLoop.h"
#include "tests/forwarder/Packing.h"
#include "tests/support/ForwarderProcess.h"
#include "tests/support/TempDir.h"
#include "tests/support/Waiting.h"

namespace Forwarder {
namespace {

using namespace ForwarderTest;
using namespace TestSupport;
using testing::HasSubstr;

// The agent's part: a database with the table "ports", and the reports on it by error code.
class Agent {
 public:
  explicit Agent(const std::string& stateDirectory) {
    const Vela::ActivityLock lock;
    store_ = Brine::Store::open({.directory = stateDirectory});
    database_ = Lattice::Database::create(loop_, *store_,
                                          {.doorbellPath = stateDirectory + "/doorbell.sock"});
    database_->observerIs(
        {.reports = [this](auto reports) { handleReports(reports); },
         .programmed = [this](uint64_t sequence) { handleProgrammed(sequence); }});
    Lattice::TheTypeRegistry().typeIs(typeOf("key port : U16; speed : U32;"));
    ports_ = Vela::make<Lattice::ArTableInterface>("ports", "test_type",
                                                   [this] { ports_->maybeInitialize(); });
    database_->bindInterface(ports_, "ports", true);
    thread_ = std::thread([this] { loop_.run(); });
  }
  ~Agent() {
    loop_.stop();
    thread_.join();
    const Vela::ActivityLock lock;
    ports_ = nullptr;
    database_.reset();
    store_.reset();
  }
  bool ready() {
    const Vela::ActivityLock lock;
    return ports_->ready();
  }
  void write(uint16_t from, uint16_t to, uint32_t speed) {
    const Vela::ActivityLock lock;
    database_->batchBegin();
    for (uint16_t port = from; port < to; ++port) {
      ports_->rowIs({big(port, 2), little(speed, 4)}, 1000 + port);
      rows_[port] = fmt::format("ports port={:#06x} -> speed={:#010x}\n", port, speed);
    }
    ASSERT_EQ(database_->batchEnd().reason(), "");
  }
  void erase(uint16_t from, uint16_t to) {
    const Vela::ActivityLock lock;
    database_->batchBegin();
    for (uint16_t port = from; port < to; ++port) {
      ports_->rowDel(big(port, 2), 1000 + port);
      rows_.erase(port);
    }
    ASSERT_EQ(database_->batchEnd().reason(), "");
  }
  // The rows as the forwarder's dump shows them.
  std::string dump() const {
    std::string text;
    for (const auto& [port, line] : rows_) text += line;
    return text;
  }
  size_t reported(uint16_t errorCode) {
    const Vela::ActivityLock lock;
    return reported_[errorCode];
  }

 private:
  void handleReports(std::span<const Lattice::Report> reports) {
    for (const Lattice::Report& report : reports) {
      ++reported_[report.errorCode];
      if (report.errorCode != 0) failed_.insert(report.sequence);
    }
  }
  void handleProgrammed(uint64_t sequence) {
    while (programmed_ < sequence) {
      const auto change = store_->change(++programmed_);
      if (change && change->owner != 0 && !failed_.contains(programmed_)) ++reported_[0];
    }
  }
  Vela::ReactorLoop loop_;
  std::unique_ptr<Brine::Store> store_;
  std::unique_ptr<Lattice::Database> database_;
  Vela::Ptr<Lattice::ArTableInterface> ports_;
  std::map<uint16_t, size_t> reported_;  // how many, by error code
  std::set<uint64_t> failed_;            // sequence numbers of changes
  uint64_t programmed_ = 0;              // all changes up to here
  std::map<uint16_t, std::string> rows_;
  std::thread thread_;
};

class ForwarderProcessTest : public testing::Test {
 protected:
  const TempDir directory_;
  const std::string state_ = directory_.file("state");

  testing::AssertionResult converges(const ForwarderProcess& forwarder, const Agent& agent) {
    std::string held;
    const bool same = waitUntil([&] {
      held = forwarder.ctl({"dump"}).output;
      return held == agent.dump();
    });
    if (same) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "it holds\n"
                                       << held << "not\n"
                                       << agent.dump() << forwarder.output();
  }
};

TEST_F(ForwarderProcessTest, WaitsForTheAgentThenProgramsReportsAndRefuses) {
  ForwarderProcess forwarder(
      state_, {"--capacity", "ports=10", "--fail-key", "ports:port=3", "--fail-code", "8",
               "--traffic", "50", "--traffic-header", "port=9", "--traffic-bytes", "100"});
  forwarder.start();
  ASSERT_TRUE(waitUntil([&] { return !forwarder.output().empty(); }));
  EXPECT_THAT(forwarder.output(), HasSubstr("waiting for the agent at " + state_));
  Agent agent(state_);
  ASSERT_TRUE(waitUntil([&] { return agent.ready(); }));
  ASSERT_TRUE(forwarder.waitReady());
  ASSERT_TRUE(waitUntil([&] { return forwarder.stats()["attached"] == "yes"; }));
  agent.write(0, 12, 100);
  EXPECT_TRUE(waitUntil([&] { return agent.reported(0) == 10; }));
  EXPECT_TRUE(waitUntil([&] { return agent.reported(1) == 1; }));
  EXPECT_TRUE(waitUntil([&] { return agent.reported(8) == 1; }));
  agent.erase(3, 4);
  agent.erase(11, 12);
  EXPECT_TRUE(converges(forwarder, agent));
  EXPECT_THAT(forwarder.output(), HasSubstr("attached to the agent"));
  EXPECT_THAT(forwarder.ctl({"traffic"}).output,
              testing::AllOf(HasSubstr("rate 50\n"), HasSubstr("header port=9\n")));
  forwarder.process().signal(SIGTERM);
  EXPECT_EQ(forwarder.process().exitStatus(), ExitStatus{.code = 0});
}

TEST_F(ForwarderProcessTest, UsageErrorsExitWithTwoAndOneLine) {
  const std::vector<std::string> cases[] = {
      {"--capacity", "ports"},
      {"--fail-every", "often"},
      {"--name", "a/b"},
      {"--unknown"},
      {"--latency"},
      {"ctl"},
      {"surprise"},
      {"--fail-key", "ports"},
      {"--traffic", "fast"},
      {"--traffic-header", "port"},
      {"--traffic-bytes", "0"},
  };
  for (std::vector<std::string> arguments : cases) {
    SCOPED_TRACE(arguments.front());
    arguments.insert(arguments.begin(), binaryPath("korvel-forwarder"));
    const CommandResult result = run(arguments);
    EXPECT_EQ(result.exit, ExitStatus{.code = 2});
    EXPECT_EQ(std::count(result.error.begin(), result.error.end(), '\n'), 1) << result.error;
  }
}

TEST_F(ForwarderProcessTest, CtlSaysWhenNobodyAnswersAndASecondOfTheNameIsRefused) {
  ForwarderProcess forwarder(state_);
  EXPECT_EQ(forwarder.ctl({"stats"}).exit, ExitStatus{.code = 1});
  EXPECT_THAT(forwarder.ctl({"stats"}).error, HasSubstr("no forwarder named main answers"));
  Agent agent(state_);
  forwarder.start();
  ASSERT_TRUE(forwarder.waitReady());
  EXPECT_EQ(forwarder.ctl({"explode"}).exit, ExitStatus{.code = 1});
  const CommandResult second = run({binaryPath("korvel-forwarder"), "--state-dir", state_});
  EXPECT_EQ(second.exit, ExitStatus{.code = 1});
  EXPECT_THAT(second.error, HasSubstr("choose another --name"));
  EXPECT_EQ(forwarder.ctl({"stats"}).exit, ExitStatus{.code = 0});
}

}  // namespace
}  // namespace Forwarder
