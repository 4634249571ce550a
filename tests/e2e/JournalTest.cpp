// The journal of Writes of a whole switch: `korvel why` tells of them, also after a SIGKILL, and
// `korvel replay` makes another switch of them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include "tests/e2e/Load.h"
#include "tests/e2e/Switch.h"

using namespace TestSupport;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr const char* time = "[0-9-]+T[0-9:.]+Z";

class Journaled : public testing::Test {
 protected:
  static Switch::Options options(unsigned journalMib) {
    Switch::Options options;
    options.journalMib = journalMib;
    return options;
  }
  void SetUp() override { ASSERT_TRUE(tested.start()); }

  std::string why(std::vector<std::string> words) {
    words.insert(words.begin(), "why");
    const CommandResult told = tested.agent.korvel(words);
    EXPECT_EQ(told.exit.code, 0) << told.error;
    return told.output + told.error;
  }
  static std::vector<std::string> keyOf(uint32_t route) {
    return {
        "ipv4_route", "vrf_id=1",
        "ipv4_dst=0." + std::to_string(route >> 8) + '.' + std::to_string(route & 255) + ".0/24"};
  }

  std::string journal() const { return tested.directory().file("state") + "/journal"; }

  Switch tested{options(64)};
};

TEST_F(Journaled, TellsWhoWroteAnEntryAndWhatBecameOfIt) {
  ASSERT_TRUE(tested.insertRoutes(0, 20, 1).ok());
  ASSERT_TRUE(tested.write({modifyOf(tested.route(5, 2))}).ok());
  EXPECT_FALSE(tested
                   .write({insertOf(tested.route(4, 3)), insertOf(tested.route(5, 3)),
                           insertOf(tested.route(30, 3))})
                   .ok());
  ASSERT_TRUE(tested.write({deleteOf(tested.route(5, 2))}).ok());
  const std::string told = why(keyOf(5));
  EXPECT_THAT(told, ContainsRegex(std::string(time) +
                                  "  INSERT  vrf_id=1 ipv4_dst=0.0.5.0/24 -> "
                                  "ingress.set_nexthop nexthop_id=1\n"
                                  "    by anybody ipv4:127.0.0.1:[0-9]+, role default, election id "
                                  "[0-9]+, update 6 of 20\n"
                                  "    OK, [0-9]+ us\n" +
                                  time +
                                  "  MODIFY  .* nexthop_id=2\n"
                                  "    by .*, update 1 of 1\n"
                                  "    OK, [0-9]+ us\n" +
                                  time +
                                  "  INSERT  .* nexthop_id=3\n"
                                  "    by .*, update 2 of 3\n"
                                  "    ALREADY_EXISTS, [0-9]+ us: .*0.0.5.0.*\n" +
                                  time +
                                  "  DELETE  vrf_id=1 ipv4_dst=0.0.5.0/24\n"
                                  "    by .*\n"
                                  "    OK, [0-9]+ us\n"));
  EXPECT_THAT(why(keyOf(6)), Not(HasSubstr("MODIFY")));
  EXPECT_THAT(why(keyOf(30)), HasSubstr("OK, ")) << "its Write failed in part";
  EXPECT_THAT(why(keyOf(40)), HasSubstr("no Write of it is in the journal"));
  const std::string all = why({"ipv4_route", "--last", "3"});
  EXPECT_THAT(all, HasSubstr("22 older ones are not shown"));
  const CommandResult unknown = tested.agent.korvel({"why", "ipv4_routes"});
  EXPECT_EQ(unknown.exit.code, 1);
  EXPECT_THAT(unknown.error, HasSubstr("did you mean"));
}

TEST_F(Journaled, TellsWhatTheForwardingAgentSaid) {
  const std::string table = Router::rowTable(Router::routeTable);
  const auto broken = tested.forwarder.ctl({"fail-table", table});
  ASSERT_EQ(broken.exit.code, 0) << broken.error;
  const WriteOutcome outcome = tested.insertRoutes(7, 8, 1);
  ASSERT_EQ(outcome.errors.size(), 1u);
  ASSERT_NE(outcome.errors[0].message(), "");
  EXPECT_THAT(why(keyOf(7)), HasSubstr(outcome.errors[0].message()));
}

TEST_F(Journaled, OutlivesTheAgentWhenItIsKilled) {
  for (uint32_t i = 0; i < 50; ++i) ASSERT_TRUE(tested.insertRoutes(i, i + 1, 1).ok());
  tested.agent.kill();  // at once: the last records are not in the files yet
  ASSERT_TRUE(tested.restartAgent());
  EXPECT_THAT(why(keyOf(49)), ContainsRegex("INSERT.*\n.*\n    OK"));
  EXPECT_THAT(why(keyOf(49)), Not(HasSubstr("the journal was off")));
  ASSERT_TRUE(tested.write({modifyOf(tested.route(49, 2))}).ok());
  EXPECT_THAT(why(keyOf(49)), ContainsRegex("INSERT(.*\n)*.*MODIFY"));
  tested.agent.kill();
  EXPECT_THAT(why(keyOf(48)), HasSubstr("INSERT")) << "without a running agent";
  EXPECT_THAT(why({"ipv4_route", "ipv4_dst=0.0.48.0/24", "--journal", journal()}),
              HasSubstr("INSERT"));
}

TEST_F(Journaled, CanBeTurnedOffAndOnWhileTheAgentRuns) {
  const auto sizeIs = [&](const std::string& mib) {
    const auto set = tested.agent.korvel({"set", "p4runtime/config/journal", "sizeMib", mib});
    EXPECT_EQ(set.exit.code, 0) << set.error;
  };
  sizeIs("0");
  ASSERT_TRUE(tested.insertRoutes(0, 1, 1).ok());
  sizeIs("4");
  ASSERT_TRUE(tested.insertRoutes(1, 2, 1).ok());
  EXPECT_THAT(why(keyOf(0)), HasSubstr("no Write of it"));
  EXPECT_THAT(why(keyOf(1)), ContainsRegex("the journal was off\n(.*\n)*.*INSERT"));
  const auto status = tested.agent.korvel({"status"});
  EXPECT_THAT(status.output, HasSubstr("state/journal, "));
}

TEST_F(Journaled, ADirectoryThatCannotBeWrittenIsToldAndWritesGoOn) {
  const auto set = [&](const char* attribute, const std::string& value) {
    EXPECT_EQ(tested.agent.korvel({"set", "p4runtime/config/journal", attribute, value}).exit.code,
              0);
  };
  set("directory", "/proc/journal");
  ASSERT_TRUE(tested.insertRoutes(0, 1, 1).ok());
  EXPECT_THAT(tested.agent.korvel({"status"}).output, HasSubstr("NOT WRITTEN: "));
  EXPECT_THAT(tested.agent.output(), HasSubstr("/proc/journal"));
  set("directory", "");
  ASSERT_TRUE(tested.insertRoutes(1, 2, 1).ok());
  EXPECT_THAT(why(keyOf(1)), HasSubstr("INSERT"));
}

// All rows, without the handles, which are of the switch that has them.
std::set<std::string> dumpOf(const AgentProcess& agent) {
  const CommandResult dump = agent.korvel({"table", "dump"});
  EXPECT_EQ(dump.exit.code, 0) << dump.error;
  std::istringstream lines(std::regex_replace(dump.output, std::regex("handle [0-9]+, "), ""));
  std::set<std::string> rows;
  for (std::string line; std::getline(lines, line);) rows.insert(line);
  return rows;
}

CommandResult replay(std::vector<std::string> words) {
  words.insert(words.begin(), {binaryPath("korvel"), "replay"});
  return run(words, {}, std::chrono::minutes(5));
}

TEST_F(Journaled, ReplayingItMakesASwitchThatHoldsTheSame) {
  Load load(tested, printedSeed());
  load.start();
  waitUntil([&] { return load.acknowledged() >= 200 || !load.writing(); });
  load.stop();
  ASSERT_EQ(load.broken(), "");
  EXPECT_FALSE(tested
                   .write({insertOf(tested.route(9001, 1)), insertOf(tested.route(9001, 2)),
                           insertOf(tested.route(9002, 1))})
                   .ok());
  Switch other;
  ASSERT_TRUE(other.start());
  const CommandResult refused = replay({journal(), "--to", other.agent.address()});
  EXPECT_EQ(refused.exit.code, 1);
  EXPECT_THAT(refused.error, HasSubstr("give a higher --election-id"));
  const CommandResult told =
      replay({journal(), "--to", other.agent.address(), "--election-id", "100"});
  EXPECT_EQ(told.exit.code, 0) << told.error;
  EXPECT_EQ(told.error, "");
  EXPECT_THAT(told.output, HasSubstr("; 0 failed here\nleft out 1 updates that had failed\n"));
  EXPECT_EQ(difference("the first", tested.controllerView(), "replayed", other.controllerView()),
            "");
}

// Routes come, change and go, in Writes of one update to a hundred.
TEST_F(Journaled, ReplayingManyWritesToASwitchWithoutAPipelineMakesTheSameRows) {
  const uint32_t seed = printedSeed();
  std::mt19937 random(seed);
  std::vector<uint32_t> nexthops(20'000);  // 0: there is no such route
  for (int writes = 0, updates = 0; updates < 50'000; ++writes) {
    std::vector<p4::v1::Update> batch;
    const uint32_t first = random() % nexthops.size();
    const uint32_t size = writes % 4 == 0 ? 100 : 1;
    for (uint32_t i = 0; i < size; ++i, ++updates) {
      const uint32_t route = (first + i) % nexthops.size();
      uint32_t& nexthop = nexthops[route];
      const uint32_t next = nexthop == 0 || random() % 3 != 0 ? 1 + random() % 1000 : 0;
      const p4::v1::TableEntry entry = tested.route(route, next == 0 ? nexthop : next);
      batch.push_back(next == 0      ? deleteOf(entry)
                      : nexthop == 0 ? insertOf(entry)
                                     : modifyOf(entry));
      nexthop = next;
    }
    ASSERT_TRUE(tested.write(batch).ok());
  }
  const TempDir directory;
  AgentProcess other({.stateDirectory = directory.file("state")});
  other.start();
  ForwarderProcess forwarder(directory.file("state"), {});
  forwarder.start();
  ASSERT_TRUE(forwarder.waitAttached());
  for (const char* batch : {"0", "1000"}) {
    SCOPED_TRACE(batch);
    CommandResult told;
    waitUntil([&] {
      told = replay({journal(), "--to", other.address(), "--push", "--batch", batch});
      return !told.error.starts_with("korvel: cannot reach");
    });
    ASSERT_EQ(told.exit.code, 0) << told.error;
    EXPECT_EQ(told.error, "");
    EXPECT_THAT(told.output, HasSubstr("pushed the pipeline of the journal\nreplayed 50"));
    EXPECT_EQ(dumpOf(other), dumpOf(tested.agent));
  }
}

// The last one to change a route wins, whichever thread tells of it first.
TEST_F(Journaled, ReplayingKeepsTheOrderOfWritesThatContend) {
  constexpr uint32_t routes = 4;
  ASSERT_TRUE(tested.insertRoutes(0, routes, 1).ok());
  std::vector<std::thread> writers;
  for (uint32_t writer = 0; writer < 8; ++writer) {
    writers.emplace_back([this, writer] {
      for (uint32_t i = 0; i < 250; ++i) {
        const uint32_t nexthop = 1 + writer * 1000 + i;
        EXPECT_TRUE(tested.write({modifyOf(tested.route(i % routes, nexthop))}).ok());
      }
    });
  }
  for (std::thread& writer : writers) writer.join();
  Switch other;
  ASSERT_TRUE(other.startAgent());
  ASSERT_TRUE(other.startForwarder());
  const CommandResult told = replay({journal(), "--to", other.agent.address()});
  EXPECT_EQ(told.exit.code, 0) << told.error;
  EXPECT_EQ(dumpOf(other.agent), dumpOf(tested.agent));
}

TEST_F(Journaled, ReplayingBeginsAtTheLastPushThatClearedTheSwitch) {
  ASSERT_TRUE(tested.insertRoutes(0, 10, 1).ok());
  p4::v1::SetForwardingPipelineConfigRequest push;
  push.set_device_id(1);
  push.mutable_election_id()->set_low(tested.electionId());
  push.set_action(p4::v1::SetForwardingPipelineConfigRequest::VERIFY_AND_COMMIT);
  *push.mutable_config()->mutable_p4info() = tested.pipeline().p4info();
  grpc::ClientContext context;
  p4::v1::SetForwardingPipelineConfigResponse response;
  const auto pushed =
      tested.controller().stub().SetForwardingPipelineConfig(&context, push, &response);
  ASSERT_TRUE(pushed.ok()) << pushed.error_message();
  ASSERT_TRUE(tested.insertRoutes(20, 25, 1).ok());
  EXPECT_THAT(why(keyOf(3)), ContainsRegex("INSERT(.*\n)*.*pipeline pushed, VERIFY_AND_COMMIT"));
  Switch other;
  ASSERT_TRUE(other.startAgent());
  ASSERT_TRUE(other.startForwarder());
  const CommandResult told = replay({journal(), "--to", other.agent.address(), "--push"});
  EXPECT_EQ(told.exit.code, 0) << told.error;
  EXPECT_THAT(told.output, HasSubstr("replayed 5 updates in 1 Writes"));
  EXPECT_EQ(dumpOf(other.agent), dumpOf(tested.agent));
}

TEST_F(Journaled, ReplayingNamesTheEntriesThatFail) {
  ASSERT_TRUE(tested.insertRoutes(0, 3, 1).ok());
  Switch other;
  ASSERT_TRUE(other.start());
  ASSERT_TRUE(other.insertRoutes(1, 2, 5).ok());
  const CommandResult told =
      replay({journal(), "--to", other.agent.address(), "--election-id", "9"});
  EXPECT_EQ(told.exit.code, 1);
  EXPECT_THAT(told.output, HasSubstr("replayed 3 updates in 1 Writes"));
  EXPECT_THAT(told.error, ContainsRegex("INSERT table ingress.ipv4_route: vrf_id=1 "
                                        "ipv4_dst=0.0.1.0/24 .record [0-9]+, .*ALREADY_EXISTS"));
  const CommandResult none = replay({other.directory().path(), "--to", other.agent.address()});
  EXPECT_EQ(none.exit.code, 1);
  EXPECT_THAT(none.error, HasSubstr("there is no journal in"));
}

}  // namespace
