// The journal of Writes of a whole switch: `korvel why` tells of them, also after a SIGKILL.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

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

  Switch tested{options(16)};
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
  EXPECT_THAT(why(keyOf(40)), HasSubstr("no Write of such an entry of ingress.ipv4_route"));
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
  ASSERT_TRUE(tested.write({modifyOf(tested.route(49, 2))}).ok());
  EXPECT_THAT(why(keyOf(49)), ContainsRegex("INSERT(.*\n)*.*MODIFY"));
  tested.agent.kill();
  const std::string journal = tested.directory().file("state") + "/journal";
  EXPECT_THAT(why(keyOf(48)), HasSubstr("INSERT")) << "without a running agent";
  EXPECT_THAT(why({"ipv4_route", "ipv4_dst=0.0.48.0/24", "--journal", journal}),
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
  EXPECT_THAT(why(keyOf(0)), HasSubstr("no Write of such an entry"));
  EXPECT_THAT(why(keyOf(1)), HasSubstr("INSERT"));
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

}  // namespace
