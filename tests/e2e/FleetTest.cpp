// Switches that are configured and watched in a Redis, which may be away.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <memory>
#include <vector>

#include "platform/vela/Json.h"
#include "tests/e2e/Load.h"
#include "tests/support/RedisServer.h"

using namespace TestSupport;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr const char* systemConfig = "p4runtime/config/system";
constexpr const char* systemStatus = "p4runtime/status/system";
constexpr const char* agentStatus = "p4runtime/status/agent";
constexpr const char* ownStatus = "orrery/status/redis";

// A switch whose configuration stands in a Redis.
class Member {
 public:
  Member(const RedisServer& redis, const std::string& prefix, Switch::Options options)
      : redis_(redis), prefix_(prefix), tested_(completed(redis, prefix, std::move(options))) {}

  Switch& operator*() { return tested_; }
  Switch* operator->() { return &tested_; }

  // Writes the whole configuration.
  void configure() const {
    const Vela::Json all = Vela::parseJson(tested_.agent.configuration());
    std::vector<std::string> command{"HSET", prefix_ + "/config"};
    for (const cJSON* one : Vela::JsonElements(all.get())) {
      command.insert(command.end(), {one->string, Vela::jsonLine(*one)});
    }
    redis_.run(command);
  }
  void write(const std::string& path, const std::string& json) const {
    redis_.run({"HSET", prefix_ + "/config", path, json});
  }
  // Gives the system's configuration another member.
  void writeSystem(const char* name, const std::string& json) const {
    const Vela::Json object = Vela::parseJson(redis_.field(prefix_ + "/config", systemConfig));
    cJSON_DeleteItemFromObjectCaseSensitive(object.get(), name);
    cJSON_AddItemToObject(object.get(), name, cJSON_CreateRaw(json.c_str()));
    write(systemConfig, Vela::jsonLine(*object));
  }
  std::string status(const char* path) const { return redis_.field(prefix_ + "/status", path); }
  std::string alive() const { return redis_.run({"GET", prefix_ + "/alive"}); }

  bool untilStatus(const char* path, const std::string& text) const {
    return waitUntil([&] { return status(path).find(text) != std::string::npos; });
  }
  bool untilAlive(const std::string& text) const {
    return waitUntil([&] { return alive().find(text) != std::string::npos; });
  }
  std::string setting(const char* path, const char* attribute) const {
    const auto told = tested_.agent.korvel({"get", path, attribute});
    return told.output.substr(0, told.output.find('\n'));
  }
  bool untilSetting(const char* attribute, const std::string& text) const {
    return waitUntil([&] { return setting(systemConfig, attribute) == text; });
  }
  bool untilSaid(const std::string& text) const {
    return waitUntil([&] { return tested_.agent.output().find(text) != std::string::npos; });
  }

 private:
  static Switch::Options completed(const RedisServer& redis, const std::string& prefix,
                                   Switch::Options options) {
    options.orrery = redis.address(prefix);
    return options;
  }

  const RedisServer& redis_;
  const std::string prefix_;
  Switch tested_;
};

class FleetTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!RedisServer::installed()) GTEST_SKIP() << "redis-server is not installed";
    redis = std::make_unique<RedisServer>(folder.path());
  }
  std::unique_ptr<Member> started(const std::string& prefix, Switch::Options options = {}) {
    auto member = std::make_unique<Member>(*redis, prefix, std::move(options));
    member->configure();
    EXPECT_TRUE((*member)->start());
    return member;
  }

  const TempDir folder;
  std::unique_ptr<RedisServer> redis;
};

TEST_F(FleetTest, ThreeAgentsAreConfiguredAndWatchedThroughOneRedis) {
  std::vector<std::unique_ptr<Member>> fleet;
  for (uint64_t number = 1; number <= 3; ++number) {
    Switch::Options options{.batchTimeout = 1, .deviceId = number};
    fleet.push_back(
        std::make_unique<Member>(*redis, fmt::format("fleet/s{}", number), std::move(options)));
    (*fleet.back())->agent.start();
  }
  for (const auto& member : fleet) {
    ASSERT_TRUE(member->untilSaid("waits for its configuration"));
    member->configure();
  }
  for (const auto& member : fleet) {
    const auto& device = (*member)->agent.options().deviceId;
    SCOPED_TRACE(device);
    ASSERT_TRUE((*member)->agent.waitServing());
    ASSERT_TRUE((*member)->startForwarder());
    ASSERT_TRUE((*member)->connectController());
    EXPECT_TRUE((*member)->insertRoutes(0, 10, 1).ok());
    EXPECT_TRUE(member->untilStatus(agentStatus, fmt::format(R"("deviceId":{},)", device)));
    EXPECT_TRUE(member->untilStatus(agentStatus, "ipv4_route 10/"));
    EXPECT_TRUE(member->untilAlive("serves on " + (*member)->agent.address()));
  }

  Member& first = *fleet[0];
  Member& second = *fleet[1];
  Member& third = *fleet[2];
  for (const auto& member : fleet)
    member->write("p4runtime/config/port-mapping/7", R"({"intf": "eth7"})");
  for (const auto& member : fleet) {
    EXPECT_TRUE(member->untilStatus("p4runtime/status/port-mapping", R"("7":"eth7")"));
  }
  first.writeSystem("maxReads", "0");
  first.writeSystem("deviceId", "9");
  second.writeSystem("maxReads", "99");
  EXPECT_TRUE(second.untilSetting("maxReads", "99"));
  EXPECT_TRUE(first.untilStatus(ownStatus, R"("p4runtime/config/system maxReads":)"));
  EXPECT_TRUE(first.untilStatus(ownStatus, "deviceId is read when the agent starts"));
  EXPECT_THAT(first->agent.korvel({"status"}).output,
              HasSubstr("p4runtime/config/system deviceId refused: "));
  EXPECT_EQ(first.setting(systemConfig, "maxReads"), "512");
  EXPECT_THAT(second.status(ownStatus), HasSubstr(R"("refused":{})"));

  ASSERT_EQ(second->forwarder.ctl({"silent", "on"}).exit.code, 0);
  EXPECT_FALSE(second->insertRoutes(10, 11, 1).ok());
  EXPECT_TRUE(second.untilStatus(systemStatus, R"("critical":true)"));
  EXPECT_TRUE(second.untilAlive(R"("critical":true)"));
  EXPECT_THAT(second.alive(), HasSubstr(R"("state":"CRITICAL, writes are refused: )"));
  EXPECT_THAT(second.alive(), Not(HasSubstr(R"("criticalReason":"")")));
  EXPECT_THAT(first.alive(), HasSubstr(R"("critical":false)"));

  third->agent.kill();
  EXPECT_TRUE(waitUntil([&] { return third.alive().empty(); }));
  EXPECT_NE(first.alive(), "");
  ASSERT_TRUE(third->restartAgent());
  EXPECT_TRUE(third.untilAlive("serves on"));
  EXPECT_EQ(third->disagreement(), "");
}

TEST_F(FleetTest, ARedisThatIsKilledStalledAndFullUnderLoadFailsNoWrite) {
  const auto member = started("s1");
  Load load(**member, printedSeed());
  load.start();
  const auto moreWrites = [&] {
    const uint64_t before = load.acknowledged();
    return waitUntil([&] { return load.acknowledged() > before + 20 || !load.writing(); });
  };
  for (int round = 0; round < 3; ++round) {
    SCOPED_TRACE(round);
    ASSERT_TRUE(moreWrites());
    redis->kill();
    EXPECT_TRUE(waitUntil([&] { return member->setting(ownStatus, "connected") == "false"; }));
    ASSERT_TRUE(moreWrites());
    redis->start();
    ASSERT_TRUE(member->untilStatus(agentStatus, "reportsAccepted"));
    redis->stall();
    EXPECT_TRUE(waitUntil([&] { return member->setting(ownStatus, "connected") == "false"; }));
    ASSERT_TRUE(moreWrites());
    redis->goOn();
    EXPECT_TRUE(waitUntil([&] { return member->setting(ownStatus, "connected") == "true"; }));
    redis->run({"CONFIG", "SET", "maxmemory", "1"});
    EXPECT_TRUE(waitUntil([&] {
      return member->setting(ownStatus, "trouble").find("maxmemory") != std::string::npos;
    }));
    ASSERT_TRUE(moreWrites());
    redis->run({"CONFIG", "SET", "maxmemory", "0"});
    ASSERT_TRUE(load.writing());
  }
  member->configure();
  member->writeSystem("maxReads", "77");
  EXPECT_TRUE(member->untilSetting("maxReads", "77"));
  load.stop();
  EXPECT_TRUE(load.failure().ok()) << testing::PrintToString(load.failure());
  EXPECT_EQ(load.broken(), "");
  EXPECT_EQ((*member)->disagreement(), "");
}

TEST_F(FleetTest, AnAgentStartsWithTheLastConfigurationWhileRedisIsAway) {
  const auto member = started("s1");
  ASSERT_TRUE((*member)->insertRoutes(0, 50, 1).ok());
  member->writeSystem("maxReads", "77");
  ASSERT_TRUE(member->untilSetting("maxReads", "77"));
  const std::string copy = (*member)->agent.options().stateDirectory + "/orrery-copy.json";
  ASSERT_TRUE(waitUntil([&] { return fileText(copy).find("77") != std::string::npos; }));
  redis->kill();
  const uint64_t programmed = (*member)->forwarder.programmedChanges();
  ASSERT_TRUE((*member)->restartAgent());
  EXPECT_EQ(member->setting(systemConfig, "maxReads"), "77");
  EXPECT_EQ(member->setting(ownStatus, "configuration"), "copy");
  EXPECT_EQ((*member)->disagreement(), "");
  EXPECT_EQ((*member)->forwarder.programmedChanges(), programmed);
  redis->start();
  EXPECT_TRUE(member->untilStatus(agentStatus, "ipv4_route 50/"));
}

// Settings of Redis hide those of the file; SIGHUP reads both again.
TEST_F(FleetTest, AFileAndARedisAreOneConfiguration) {
  redis->run({"HSET", "s1/config", "p4runtime/config/agent", R"({"batchTimeout": 3})"});
  Switch tested({.batchTimeout = 7, .agent = {"--orrery", redis->address("s1")}});
  ASSERT_TRUE(tested.startAgent());
  AgentProcess& agent = tested.agent;
  const auto untilTimeout = [&](const std::string& text) {
    const auto timeout = [&] {
      return agent.korvel({"get", "p4runtime/config/agent", "batchTimeout"}).output;
    };
    return waitUntil([&] { return timeout() == text + "\n"; });
  };
  EXPECT_TRUE(untilTimeout("3"));
  redis->run({"HSET", "s1/config", "p4runtime/config/agent", "{}"});
  EXPECT_TRUE(untilTimeout("7"));

  std::string changed = agent.configuration();
  changed.replace(changed.find("7,"), 2, "8,");
  std::ofstream(agent.options().stateDirectory + ".config.json") << changed;
  agent.process().signal(SIGHUP);
  EXPECT_TRUE(untilTimeout("8"));
  redis->run({"HSET", "s1/config", "p4runtime/config/agent", R"({"batchTimeout": 2})"});
  EXPECT_TRUE(untilTimeout("2"));
}

TEST_F(FleetTest, AWholeSwitchPassesTheAddressOn) {
  const std::string port = std::to_string(freePort());
  redis->run({"HSET", "s1/config", "p4runtime/config/monitoring", R"({"address": "127.0.0.1:0"})"});
  Process process(
      {binaryPath("korvel"), "switch", "--no-p4", "--grpc-server-addr", "127.0.0.1:" + port,
       "--state-dir", folder.file("state"), "--orrery", redis->address("s1")},
      folder.file("out"), folder.file("log"));
  const auto until = [&](const std::vector<std::string>& command, const std::string& text) {
    return waitUntil([&] { return redis->run(command).find(text) != std::string::npos; },
                     process.descriptor());
  };
  EXPECT_TRUE(until({"GET", "s1/alive"}, "127.0.0.1:" + port)) << fileText(folder.file("log"));
  EXPECT_TRUE(
      until({"HGET", "s1/status", "p4runtime/status/monitoring"}, R"("address":"127.0.0.1:)"));
  process.signal(SIGTERM);
  EXPECT_EQ(process.exitStatus(), ExitStatus{.code = 0});
}

TEST_F(FleetTest, AnAgentThatWaitsForItsConfigurationEndsWhenItIsTold) {
  const TempDir state;
  AgentProcess agent({.stateDirectory = state.file("state"), .orrery = redis->address("nobody")});
  agent.start();
  ASSERT_TRUE(waitUntil([&] { return agent.output().find("waits") != std::string::npos; }));
  agent.process().signal(SIGTERM);
  EXPECT_EQ(agent.process().exitStatus(), ExitStatus{.code = 0});
}

TEST_F(FleetTest, ThePasswordIsShownNowhere) {
  const std::string password = "geheim-4711";
  redis->run({"ACL", "SETUSER", "s1", "on", ">" + password, "~s1/*", "+@all"});
  const TempDir state;
  const std::string socket = redis->address("s1").substr(std::string("unix:").size());
  AgentProcess agent(
      {.stateDirectory = state.file("state"), .orrery = "unix://s1:" + password + "@" + socket});
  redis->run({"HSET", "s1/config", systemConfig, R"({"enabled": false, "grpcServerPort": 9})"});
  agent.start();
  EXPECT_TRUE(waitUntil([&] { return !redis->run({"HGET", "s1/status", ownStatus}).empty(); }));
  redis->run({"ACL", "SETUSER", "s1", "resetpass", ">another"});
  redis->run({"CLIENT", "KILL", "TYPE", "normal"});
  const auto trouble = [&] { return agent.korvel({"get", ownStatus, "trouble"}).output; };
  EXPECT_TRUE(waitUntil([&] { return trouble().find("WRONGPASS") != std::string::npos; }));
  for (const auto& text : {agent.output(), trouble(), agent.korvel({"get", ownStatus}).output,
                           agent.korvel({"trace"}).output, redis->run({"HGETALL", "s1/status"})}) {
    EXPECT_THAT(text, Not(HasSubstr(password)));
  }
}

TEST(KorvelAgent, NamesWhatIsWrongWithTheAddressOfAStateDatabase) {
  const TempDir state;
  const struct {
    std::vector<std::string> arguments;
    const char* trouble;
  } cases[] = {
      {{}, "--config or --orrery"},
      {{"--orrery", "mongo://h"}, "neither redis:// nor unix:"},
      {{"--orrery", "rediss://h"}, "TLS is not spoken"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.trouble);
    std::vector<std::string> command{binaryPath("korvel"), "agent", "--state-dir",
                                     state.file("state")};
    command.insert(command.end(), c.arguments.begin(), c.arguments.end());
    const CommandResult told = run(command);
    EXPECT_EQ(told.exit, (ExitStatus{.code = 2}));
    EXPECT_THAT(told.error, HasSubstr(c.trouble));
  }
}

}  // namespace
