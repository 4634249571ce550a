// Stopping at any instant: by signals, by an exit request and by the command; in start-up, under
// load, and while it stops already.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <random>
#include <thread>

#include "tests/e2e/Load.h"

using namespace TestSupport;
using testing::HasSubstr;

namespace {

constexpr ExitStatus ended{.code = 0};

// Once it has set its signals up; before that the kernel ends it as any process.
bool heedsSignals(Process& process) {
  const std::string path = "/proc/" + std::to_string(process.pid()) + "/status";
  return waitUntil(
      [&] {
        std::ifstream file(path);
        for (std::string line; std::getline(file, line);) {
          if (!line.starts_with("SigBlk:")) continue;
          return (std::stoull(line.substr(7), nullptr, 16) >> (SIGTERM - 1) & 1) != 0;
        }
        return false;
      },
      process.descriptor());
}

// Stops the agent in one way, by number; returns the fault, or "".
std::string stopped(AgentProcess& agent, unsigned way) {
  if (way == 0) agent.process().signal(SIGTERM);
  if (way == 1) agent.process().signal(SIGINT);
  if (way == 2) {  // it may come before the agent serves: the signal follows
    agent.korvel({"set", "p4runtime/config/agent", "exitRequested", "true"});
    agent.process().signal(SIGTERM);
  }
  if (way == 3) {
    agent.korvel({"stop"});
    agent.process().signal(SIGTERM);
  }
  const auto status = agent.process().exitStatus();
  if (status == ended) return "";
  return "way " + std::to_string(way) + ": " + testing::PrintToString(status) + agent.output();
}

TEST(AgentStopped, AtAnyInstantOfStartAndLoadKeepsWhatItConfirmed) {
  const uint32_t seed = printedSeed();
  std::mt19937 random(seed);
  Switch tested;
  ASSERT_TRUE(tested.start());
  Load load(tested, seed);
  for (unsigned round = 0; round < 16; ++round) {
    SCOPED_TRACE(testing::Message() << "round " << round);
    const uint64_t before = load.acknowledged();
    load.start();
    const uint64_t depth = random() % 6;
    waitUntil([&] { return load.acknowledged() >= before + depth || !load.writing(); });
    tested.agent.process().exitStatus(std::chrono::microseconds(random() % 20000));
    ASSERT_EQ(stopped(tested.agent, round % 4), "");
    load.stop();
    tested.agent.start();
    ASSERT_TRUE(heedsSignals(tested.agent.process()));
    tested.agent.process().exitStatus(std::chrono::microseconds(random() % 300000));
    ASSERT_EQ(stopped(tested.agent, random() % 4), "");
    ASSERT_TRUE(tested.startAgent());
    ASSERT_TRUE(tested.connectController());
    ASSERT_EQ(load.broken(), "");
    ASSERT_EQ(tested.disagreement(), "");
  }
}

// While it waits for a silent forwarding agent, and for a Write that waits for the same one.
TEST(AgentStopped, WhileAWriteWaitsEndsTheControllersCall) {
  Switch tested({.forwarder = {"--silent"}});
  ASSERT_TRUE(tested.start());
  WriteOutcome outcome;
  std::thread writer([&] { outcome = tested.insertRoutes(0, 10, 1); });
  ASSERT_TRUE(waitUntil([&] {
    const auto dump = tested.agent.korvel({"table", "dump", Router::rowTable(Router::routeTable)});
    return dump.output.find("(10 rows)") != std::string::npos;
  }));
  const CommandResult stop = tested.agent.korvel({"stop"});
  EXPECT_EQ(stop.exit, ended) << stop.error;
  EXPECT_THAT(stop.output, HasSubstr("has ended"));
  EXPECT_EQ(tested.agent.process().exitStatus(), ended);
  writer.join();
  EXPECT_FALSE(outcome.ok());
  EXPECT_THAT(tested.agent.korvel({"stop"}).error, HasSubstr("no agent answers"));
}

// The reactor is kept, by a slow state directory or anything else: the process is stopped
// as a whole for a while, so that several requests wait for it at once.
TEST(AgentStopped, ByEveryoneAtOnceEndsOnce) {
  Switch tested;
  ASSERT_TRUE(tested.start());
  ASSERT_TRUE(tested.insertRoutes(0, 100, 1).ok());
  std::vector<std::thread> commands;
  std::vector<CommandResult> results(3);
  tested.agent.process().signal(SIGSTOP);
  for (CommandResult& result : results) {
    commands.emplace_back([&] { result = tested.agent.korvel({"stop"}); });
  }
  tested.agent.process().signal(SIGTERM);
  tested.agent.process().signal(SIGINT);
  tested.agent.process().signal(SIGCONT);
  EXPECT_EQ(tested.agent.process().exitStatus(), ended) << tested.agent.output();
  for (std::thread& command : commands) command.join();
  for (const CommandResult& result : results) {
    EXPECT_TRUE(result.exit == ended || result.error.find("no agent answers") != std::string::npos)
        << result.error;
  }
  ASSERT_TRUE(tested.startAgent());
  ASSERT_TRUE(tested.connectController());
  EXPECT_EQ(tested.routes().entries.size(), 100u);
  EXPECT_EQ(tested.disagreement(), "");
}

// Nothing in the process has to come round for it: not the loading of the agent, nor the agent.
TEST(AgentStopped, WhileItIsStuckEndsAllTheSame) {
  for (const int signal : {SIGTERM, SIGINT}) {
    const TempDir directory;
    const std::string output = directory.file("output");
    Process agent({binaryPath("korvel"), "agent", "--config", directory.file("none"), "--state-dir",
                   directory.file("state"), "--library", KORVEL_STUCK_AGENT},
                  output, output);
    ASSERT_TRUE(waitUntil([&] { return fileText(output) == "stuck\n"; }, agent.descriptor()));
    agent.signal(signal);
    agent.signal(SIGTERM);
    EXPECT_EQ(agent.exitStatus(), ended);
  }
}

// The log of calls is written by a thread of its own, a moment after the call.
TEST(AgentStopped, HasAccountedForTheCallsBefore) {
  Switch tested;
  ASSERT_TRUE(tested.start());
  for (const int signal : {SIGTERM, SIGINT, SIGTERM, SIGINT}) {
    p4::v1::WriteRequest request = tested.controller().writeRequest({});
    const uint64_t stranger = 1'000'000 + tested.electionId();
    request.mutable_election_id()->set_low(stranger);
    EXPECT_EQ(tested.controller().write(request).status.error_code(), grpc::PERMISSION_DENIED);
    tested.agent.process().signal(signal);
    ASSERT_EQ(tested.agent.process().exitStatus(), ended);
    EXPECT_THAT(fileText(tested.agent.options().stateDirectory + "/accounts-refused.log"),
                HasSubstr("election id " + std::to_string(stranger)));
    ASSERT_TRUE(tested.startAgent());
    ASSERT_TRUE(tested.connectController());
  }
}

// A port in use leaves the agent where it is; so does a setting that only a start would heed.
TEST(AgentSettings, ThatWouldEndItAreRefused) {
  Switch tested;
  ASSERT_TRUE(tested.start());
  AgentProcess other({.stateDirectory = tested.agent.options().stateDirectory + ".other",
                      .pipelineFile = tested.agent.options().pipelineFile});
  ASSERT_TRUE(other.startServing());
  const struct {
    const char* path;
    const char* attribute;
    std::string value;
    const char* refusal;
  } cases[] = {
      {"p4runtime/config/system", "grpcServerPort", std::to_string(other.options().port),
       "choose another port"},
      {"p4runtime/config/system", "grpcServerPort", "0", "choose a port from 1 to 65535"},
      {"p4runtime/config/system", "grpcServerPort", "many", "takes a uint16, not 'many'"},
      {"p4runtime/config/system", "grpcServerAddress", "10.255.255.1", "start the agent anew"},
      {"p4runtime/config/system", "deviceId", "7", "start the agent anew"},
      {"p4runtime/config/agent", "cpuDevice", "cpu1", "start the agent anew"},
      {"p4runtime/config/agent", "batchTimeout", "0", "takes a number of seconds from 1 to 3600"},
      {"p4runtime/batchStatus", "batchTimeout", "0", "takes a number of seconds from 1 to 3600"},
      {"p4runtime/batchStatus", "pretendHwProgramming", "true", "--allow-pretended-programming"},
      {"p4runtime/config/system", "maxReads", "0", "choose 1 to 10000"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.attribute) + " " + c.value);
    const CommandResult set = tested.agent.korvel({"set", c.path, c.attribute, c.value});
    EXPECT_EQ(set.exit, (ExitStatus{.code = 1}));
    EXPECT_THAT(set.error, HasSubstr(c.refusal));
  }
  EXPECT_TRUE(tested.insertRoutes(0, 10, 1).ok());
  EXPECT_EQ(tested.disagreement(), "");
}

}  // namespace
