// Writes that stand or fall as a whole: after any failure rows, records, reads and the forwarder's
// tables are as they were, whoever is killed meanwhile.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <thread>

#include "tests/e2e/Switch.h"

using namespace TestSupport;

namespace {

class WholeWrites : public testing::Test {
 protected:
  static constexpr uint32_t routes = 300;

  void SetUp() override {
    ASSERT_TRUE(tested.start());
    ASSERT_TRUE(tested.insertRoutes(0, routes, 1).ok());
    ASSERT_TRUE(write(generation(1), p4::v1::WriteRequest::CONTINUE_ON_ERROR).ok());
  }
  WriteOutcome write(const std::vector<p4::v1::Update>& updates,
                     p4::v1::WriteRequest::Atomicity atomicity) {
    p4::v1::WriteRequest request = tested.controller().writeRequest(updates);
    request.set_atomicity(atomicity);
    return tested.controller().write(request);
  }
  WriteOutcome writeWhole(const std::vector<p4::v1::Update>& updates) {
    return write(updates, p4::v1::WriteRequest::ROLLBACK_ON_ERROR);
  }
  // From the generation before to this one: each route changes; a member, its group, the entry of
  // that and a bundle go and come, so that updates depend on each other.
  std::vector<p4::v1::Update> generation(uint32_t number) {
    const Pipeline& router = tested.pipeline();
    std::vector<p4::v1::Update> updates;
    if (number > 1) {
      updates = {deleteOf(Router::wcmp(router, number - 1)),
                 deleteOf(Router::group(router, number - 1, {})),
                 deleteOf(Router::member(router, number - 1, 0)),
                 deleteOf(Router::lag(router, number - 1, 0, 0)),
                 deleteOf(tested.route(0, 0)),
                 insertOf(tested.route(0, number))};
    }
    for (uint32_t i = 1; i < routes; ++i) updates.push_back(modifyOf(tested.route(i, number)));
    updates.push_back(insertOf(Router::member(router, number, number)));
    updates.push_back(insertOf(Router::group(router, number, {{number, 2}})));
    updates.push_back(insertOf(Router::wcmp(router, number).group(number)));
    updates.push_back(insertOf(Router::lag(router, number, number, 3)));
    return updates;
  }
  void tellForwarder(const std::vector<std::string>& words) {
    const CommandResult told = tested.forwarder.ctl(words);
    ASSERT_EQ(told.exit.code, 0) << told.error;
  }

  Switch tested;
};

TEST_F(WholeWrites, LeaveEverythingAsItWasWhenTheForwarderRefusesAny) {
  const View before = tested.controllerView();
  const View forwarded = forwarderView(tested.forwarder);
  const auto updates = generation(2);
  const std::vector<std::string> rules[] = {{"fail-table", "ipv4_route"},
                                            {"fail-table", "wcmp"},
                                            {"fail-table", "wcmp_selector.group"},
                                            {"fail-table", "lag_selector.member"},
                                            {"fail-table", "wcmp_selector.member"}};
  for (const auto& rule : rules) {
    SCOPED_TRACE(rule[1]);
    tellForwarder(rule);
    const WriteOutcome outcome = writeWhole(updates);
    EXPECT_EQ(outcome.status.error_code(), grpc::UNKNOWN);
    ASSERT_EQ(outcome.errors.size(), updates.size());
    size_t aborted = 0;
    for (const auto& error : outcome.errors) {
      EXPECT_NE(error.canonical_code(), grpc::OK);
      aborted += error.canonical_code() == grpc::ABORTED;
    }
    EXPECT_GT(aborted, 0u);
    EXPECT_LT(aborted, updates.size());
    EXPECT_EQ(difference("before", before, "after", tested.controllerView()), "");
    tellForwarder({"clear"});
    EXPECT_EQ(tested.disagreement(), "");
    EXPECT_EQ(difference("before", forwarded, "after", forwarderView(tested.forwarder)), "");
    if (HasFailure()) return;
  }
  EXPECT_TRUE(writeWhole(updates).ok());
  EXPECT_EQ(tested.disagreement(), "");
}

// The member that goes makes room, and then there is none for it to come back.
TEST_F(WholeWrites, MakeTheSwitchCriticalWhenTheForwarderCannotGoBack) {
  tellForwarder({"capacity", "wcmp_selector.member=0"});
  EXPECT_EQ(writeWhole(generation(2)).status.error_code(), grpc::UNKNOWN);
  const std::string status = tested.agent.korvel({"status"}).output;
  EXPECT_THAT(status, testing::HasSubstr("could not be undone in the forwarding plane"));
  EXPECT_EQ(writeWhole(generation(2)).status.error_code(), grpc::FAILED_PRECONDITION);
}

// Every route is of one generation, and so is all else.
TEST_F(WholeWrites, AreThereWhollyOrNotAtAllAfterTheAgentIsKilled) {
  const uint32_t seed = std::random_device()();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937 random(seed);
  uint32_t stands = 1;
  size_t undone = 0;
  for (int round = 0; round < 24; ++round) {
    SCOPED_TRACE(testing::Message() << "round " << round);
    const bool fails = round % 3 == 0;
    if (fails) tellForwarder({"fail-table", "lag_selector.group"});
    uint32_t confirmed = stands;
    std::thread writer([&] {
      while (fails ? !writeWhole(generation(stands + 1)).errors.empty()
                   : writeWhole(generation(confirmed + 1)).ok()) {
        if (!fails) ++confirmed;
      }
    });
    tested.agent.process().exitStatus(std::chrono::microseconds(random() % 60000));
    tested.agent.kill();
    writer.join();
    if (fails) tellForwarder({"clear"});
    ASSERT_TRUE(tested.startAgent());
    ASSERT_TRUE(tested.connectController());
    std::set<std::string> actions;
    uint32_t nexthop = 0;
    for (const auto& entry : tested.routes().entries) {
      const std::string& value = entry.action().action().params(0).value();
      actions.insert(value);
      nexthop = 0;
      for (const char byte : value) nexthop = nexthop << 8 | static_cast<uint8_t>(byte);
    }
    EXPECT_EQ(actions.size(), 1u) << "routes of several Writes";
    EXPECT_TRUE(nexthop == confirmed || (!fails && nexthop == confirmed + 1)) << nexthop;
    undone += nexthop == confirmed;
    stands = nexthop;
    ASSERT_EQ(tested.disagreement(), "");
    ASSERT_TRUE(writeWhole(generation(stands + 1)).ok()) << "all else is of that generation, too";
    ++stands;
    if (HasFailure()) return;
  }
  EXPECT_GT(undone, 0u);
}

TEST_F(WholeWrites, AreRefusedAtOnceUnlessTheForwarderAppliesThemAtOnce) {
  const WriteOutcome outcome =
      write({insertOf(tested.route(routes, 1))}, p4::v1::WriteRequest::DATAPLANE_ATOMIC);
  EXPECT_EQ(outcome.status.error_code(), grpc::UNIMPLEMENTED);
  EXPECT_EQ(tested.routes().entries.size(), routes);
}

}  // namespace
