// A forwarder that goes silent or keeps failing, and the way back.
#include <gtest/gtest.h>

#include "tests/e2e/Switch.h"

using namespace TestSupport;

namespace {

TEST(SilentForwarder, TimesTheBatchOutAndPutsTheSwitchIntoCriticalStateUntilReverted) {
  Switch tested({.batchTimeout = 1});
  ASSERT_TRUE(tested.start());
  ASSERT_TRUE(tested.insertRoutes(0, 2, 1).ok());
  const Pipeline& router = tested.pipeline();
  ASSERT_TRUE(
      tested
          .write({insertOf(Router::member(router, 1, 1)), insertOf(Router::member(router, 2, 2)),
                  insertOf(Router::group(router, 1, {{1, 1}})),
                  insertOf(Router::lag(router, 1, 10, 2))})
          .ok());
  const View before = tested.controllerView();

  ASSERT_EQ(tested.forwarder.ctl({"silent", "on"}).exit.code, 0);
  const std::vector<p4::v1::Update> updates{deleteOf(tested.route(0, 0)),
                                            modifyOf(tested.route(1, 5)),
                                            insertOf(tested.route(2, 5)),
                                            modifyOf(Router::group(router, 1, {{1, 2}, {2, 1}})),
                                            insertOf(Router::wcmp(router, 1).group(1)),
                                            modifyOf(Router::lag(router, 1, 20, 3)),
                                            insertOf(Router::lag(router, 2, 30, 2))};
  const WriteOutcome timedOut = tested.write(updates);
  EXPECT_EQ(timedOut.status.error_code(), grpc::UNKNOWN);
  for (size_t i = 0; i < updates.size(); ++i) {
    // The update in a later batch was not begun.
    const bool followed = updates[i].entity().table_entry().action().action_profile_group_id();
    EXPECT_NE(timedOut.code(i), grpc::OK);
    if (!followed) {
      EXPECT_EQ(timedOut.code(i), grpc::DEADLINE_EXCEEDED) << "update " << i;
    }
  }
  EXPECT_EQ(difference("before", before, "rolled back", tested.controllerView()), "");

  const WriteOutcome refused = tested.insertRoutes(3, 4, 1);
  EXPECT_EQ(refused.status.error_code(), grpc::FAILED_PRECONDITION);
  EXPECT_EQ(refused.status.error_message(), "WRITE operation is not allowed due to critical state");
  const CommandResult status = tested.agent.korvel({"status"});
  EXPECT_NE(status.output.find("critical"), std::string::npos) << status.output << status.error;

  ASSERT_EQ(tested.forwarder.ctl({"silent", "off"}).exit.code, 0);
  const CommandResult reverted =
      tested.agent.korvel({"call", "p4runtime/tableImpl", "revertCriticalState"});
  ASSERT_EQ(reverted.exit.code, 0) << reverted.error;
  EXPECT_TRUE(tested.write(updates).ok());
  EXPECT_EQ(tested.disagreement(), "");
}

TEST(AbsentForwarder, IsNamedAtOnceAndMakesNothingCritical) {
  Switch tested;
  ASSERT_TRUE(tested.startAgent() && tested.connectController());
  const auto status = [&] { return tested.agent.korvel({"status"}).output; };
  EXPECT_NE(status().find("NO FORWARDING AGENT is attached"), std::string::npos);
  const WriteOutcome refused = tested.insertRoutes(0, 3, 1);
  EXPECT_EQ(refused.status.error_code(), grpc::UNAVAILABLE);
  EXPECT_NE(refused.status.error_message().find("no forwarding agent is attached"),
            std::string::npos);
  ASSERT_TRUE(tested.startForwarder());
  EXPECT_TRUE(tested.insertRoutes(0, 3, 1).ok());
  EXPECT_EQ(tested.disagreement(), "");
  EXPECT_EQ(status().find("CRITICAL"), std::string::npos);
}

bool statusSays(const Switch& tested, const std::string& text) {
  return waitUntil(
      [&] { return tested.agent.korvel({"status"}).output.find(text) != std::string::npos; });
}
bool failedEntriesBecome(const Switch& tested, const std::string& count) {
  return statusSays(tested, "failed entries             " + count + "\n");
}

// Two forwarding agents that disagree: a Write needs both, and each is listed with its own
// failures.
TEST(SecondForwarder, CountsAsLongAsItIsThere) {
  Switch tested;
  ASSERT_TRUE(tested.start());
  ForwarderProcess second(tested.agent.options().stateDirectory,
                          {"--name", "second", "--fail-table", "packet_type"});
  for (const char* time : {"first", "second"}) {
    SCOPED_TRACE(time);
    second.start();
    EXPECT_TRUE(failedEntriesBecome(tested, "3"));  // its entries are constant
    EXPECT_TRUE(statusSays(tested, "(reported by second)"));
    EXPECT_TRUE(tested.write({insertOf(tested.route(1, 1)), insertOf(tested.route(2, 1))}).ok());
    EXPECT_TRUE(tested.write({deleteOf(tested.route(1, 0)), deleteOf(tested.route(2, 0))}).ok());
    EXPECT_TRUE(failedEntriesBecome(tested, "3"));
    second.kill();
    EXPECT_TRUE(failedEntriesBecome(tested, "0"));
  }
  EXPECT_TRUE(tested.insertRoutes(0, 5, 1).ok());
  EXPECT_EQ(tested.disagreement(), "");
}

// The list of failures went with the agent that kept it; the forwarder knows them.
TEST(FailingForwarder, IsStillHeardOfWhenTheAgentStartsAnew) {
  Switch tested({.forwarder = {"--fail-table", "packet_type"}});  // its entries are constant
  ASSERT_TRUE(tested.start());
  EXPECT_TRUE(failedEntriesBecome(tested, "3"));
  ASSERT_TRUE(tested.restartAgent());
  EXPECT_TRUE(failedEntriesBecome(tested, "3"));
  ASSERT_EQ(tested.forwarder.ctl({"clear"}).exit.code, 0);
  ASSERT_TRUE(tested.restartAgent());
  EXPECT_EQ(tested.disagreement(), "");
  EXPECT_TRUE(failedEntriesBecome(tested, "0"));
}

}  // namespace
