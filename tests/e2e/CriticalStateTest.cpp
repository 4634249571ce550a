// A forwarder that goes silent, and the way back.
#include <gtest/gtest.h>

#include "tests/e2e/Switch.h"

using namespace TestSupport;

namespace {

TEST(SilentForwarder, TimesTheBatchOutAndPutsTheSwitchIntoCriticalStateUntilReverted) {
  Switch tested({.batchTimeout = 1});
  ASSERT_TRUE(tested.start());
  ASSERT_TRUE(tested.insertRoutes(0, 2, 1).ok());
  const View before = tested.controllerView();

  ASSERT_EQ(tested.forwarder.ctl({"silent", "on"}).exit.code, 0);
  const WriteOutcome timedOut = tested.controller().write(
      {deleteOf(tested.route(0, 0)), modifyOf(tested.route(1, 5)), insertOf(tested.route(2, 5))});
  EXPECT_EQ(timedOut.status.error_code(), grpc::UNKNOWN);
  for (size_t i = 0; i < 3; ++i) EXPECT_EQ(timedOut.code(i), grpc::DEADLINE_EXCEEDED);
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
  EXPECT_TRUE(tested.insertRoutes(2, 4, 1).ok());
  EXPECT_EQ(tested.disagreement(), "");
}

}  // namespace
