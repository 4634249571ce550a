// Reconciling pushes: entries that stay as they are under the pushed program, entries that are in
// the way, and an agent that is killed meanwhile.
#include <gmock/gmock.h>
#include <google/protobuf/util/message_differencer.h>
#include <gtest/gtest.h>

#include <thread>

#include "tests/e2e/PushFixture.h"

using google::protobuf::util::MessageDifferencer;
using p4::v1::TableEntry;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using namespace TestSupport;

namespace {

using ReconcileTest = PushTest;

TEST_F(ReconcileTest, WhatStaysAndWhatGoes) {
  const Config first = config();
  ASSERT_TRUE(push(first, Set::RECONCILE_AND_COMMIT).ok());  // of a switch without a pipeline
  ASSERT_TRUE(insertRoutes(0, 10).ok());
  ASSERT_TRUE(controller_
                  ->write({insertOf(Router::member(router_, 7, 1)),
                           insertOf(Router::group(router_, 9, {{7, 1}}))})
                  .ok());
  ASSERT_EQ(disagreement(), "");
  const uint64_t changes = forwarder_.programmedChanges();

  Config cookie = first;
  cookie.mutable_cookie()->set_cookie(5);
  EXPECT_CODE(push(cookie, Set::VERIFY), OK);
  expectRuns(first);
  EXPECT_CODE(push(cookie, Set::RECONCILE_AND_COMMIT), OK);
  expectRuns(cookie);
  EXPECT_THAT(entries(), SizeIs(10));
  EXPECT_EQ(forwarder_.programmedChanges(), changes);
  restart();
  expectRuns(cookie);
  EXPECT_THAT(entries(), SizeIs(10));

  const Config other = config("", 20000);
  EXPECT_CODE(push(other, Set::VERIFY_AND_SAVE), OK);
  expectRuns(cookie);
  EXPECT_THAT(entries(), SizeIs(10));
  EXPECT_CODE(commit(), OK);
  expectRuns(other);
  EXPECT_THAT(entries(), IsEmpty());
  EXPECT_CODE(commit(), NOT_FOUND);

  ASSERT_TRUE(insertRoutes(0, 10).ok());
  EXPECT_CODE(push(other), OK);  // an equal one
  EXPECT_THAT(entries(), IsEmpty());
  EXPECT_THAT(
      controller_
          ->read({entityOf(p4::v1::ActionProfileMember()), entityOf(p4::v1::ActionProfileGroup())})
          .entities,
      IsEmpty());
  EXPECT_EQ(disagreement(), "");
}

TEST_F(ReconcileTest, WhatMeansTheSameIsReconciled) {
  ASSERT_TRUE(push(config()).ok());
  ASSERT_TRUE(insertRoutes(0, 10).ok());
  const TableEntry rule = Router::aclRule(router_, 3);
  ASSERT_TRUE(controller_->write({insertOf(rule)}).ok());
  const uint64_t changes = forwarder_.programmedChanges();
  const auto tableOf = [this](Config& config, const char* name) -> p4::config::v1::Table& {
    for (auto& table : *config.mutable_p4info()->mutable_tables()) {
      if (table.preamble().id() == router_.table(name).preamble().id()) return table;
    }
    throw std::out_of_range(name);
  };
  Config larger = config("another program", 20000);
  EXPECT_CODE(push(larger, Set::RECONCILE_AND_COMMIT), OK);
  expectRuns(larger);
  EXPECT_THAT(entries(), SizeIs(11));
  EXPECT_EQ(forwarder_.programmedChanges(), changes);

  Config smaller = config("", 9);
  EXPECT_CODE(push(smaller, Set::RECONCILE_AND_COMMIT), INVALID_ARGUMENT);
  Config other = larger;
  tableOf(other, Router::aclTable).mutable_match_fields()->RemoveLast();
  const grpc::Status refused = push(other, Set::RECONCILE_AND_COMMIT);
  EXPECT_CODE(refused, INVALID_ARGUMENT);
  EXPECT_THAT(refused.error_message(),
              HasSubstr(router_.table(Router::aclTable).preamble().name() + ", 1 entries: "));
  expectRuns(larger);
  TestSupport::Pipeline smallerFile = Router::pipeline();
  smallerFile.tableSizeIs(Router::routeTable, 9);
  smallerFile.written(directory_.file("smaller"));
  EXPECT_THAT(agent_.korvel({"pipeline", "diff", directory_.file("smaller")}).output,
              HasSubstr("10 entries: it has room for 9 now"));
  ASSERT_TRUE(controller_->write({deleteOf(rule)}).ok());
  EXPECT_CODE(push(other, Set::RECONCILE_AND_COMMIT), OK);
  EXPECT_THAT(entries(), SizeIs(10));
}

// The rows of the table stay as they are: its forwarding agents learn what is new of it.
TEST_F(ReconcileTest, ActionsAndNamesAreAddedUnderTheEntries) {
  ASSERT_TRUE(push(config()).ok());
  ASSERT_TRUE(insertRoutes(0, 10).ok());
  const uint64_t changes = forwarder_.programmedChanges();
  const Config more = extended(config(), 1);
  EXPECT_CODE(push(more, Set::RECONCILE_AND_COMMIT), OK);
  expectRuns(more);
  EXPECT_THAT(entries(), SizeIs(10));
  EXPECT_EQ(forwarder_.programmedChanges(), changes);
  TableEntry fresh = Router::route(router_, 10, 1);
  fresh.mutable_action()->mutable_action()->clear_params();
  fresh.mutable_action()->mutable_action()->set_action_id(addedAction);
  EXPECT_TRUE(controller_->write({insertOf(fresh)}).ok());
  Config renamed = more;
  const auto rename = [](auto& objects) {
    for (auto& one : objects) one.mutable_preamble()->set_alias(one.preamble().alias() + "_then");
  };
  rename(*renamed.mutable_p4info()->mutable_actions());
  rename(*renamed.mutable_p4info()->mutable_tables());
  rename(*renamed.mutable_p4info()->mutable_action_profiles());
  EXPECT_CODE(push(renamed, Set::RECONCILE_AND_COMMIT), OK);
  EXPECT_EQ(forwarder_.programmedChanges(), changes + 1);
  EXPECT_THAT(entries(), SizeIs(11));
  restart();
  expectRuns(renamed);
  EXPECT_THAT(entries(), SizeIs(11));
  EXPECT_EQ(forwarder_.programmedChanges(), changes + 1);
  forwarder_.kill();
  forwarder_.start();
  ASSERT_TRUE(forwarder_.waitAttached());
  EXPECT_EQ(forwarder_.programmedChanges(), 11u);
  EXPECT_TRUE(insertRoutes(11, 12).ok());
}

// One that takes the type of a table for settled is given a new table.
TEST_F(ReconcileTest, ActionsAreAddedBeforeAForwardingAgentThatDoesNotLearn) {
  ASSERT_TRUE(push(config()).ok());
  const std::string log = directory_.file("log");
  const Process plain({binaryPath("minimal-forwarder"), directory_.file("state")}, log, log);
  ASSERT_TRUE(waitUntil([&] {
    return agent_.korvel({"status"}).output.find("minimal-forwarder") != std::string::npos;
  }));
  ASSERT_TRUE(insertRoutes(0, 10).ok());
  const Config more = extended(config(), 1);
  EXPECT_CODE(push(more, Set::RECONCILE_AND_COMMIT), OK);
  TableEntry fresh = Router::route(router_, 10, 1);
  fresh.mutable_action()->mutable_action()->clear_params();
  fresh.mutable_action()->mutable_action()->set_action_id(addedAction);
  EXPECT_TRUE(controller_->write({insertOf(fresh)}).ok()) << "both have programmed it";
  EXPECT_THAT(entries(), SizeIs(11));
  restart();
  EXPECT_THAT(entries(), SizeIs(11));
}

// Each push adds an action to the table of the entries, which stay whatever runs.
TEST_F(ReconcileTest, KilledWhileAnActionIsAddedTheEntriesStay) {
  ASSERT_TRUE(push(config()).ok());
  ASSERT_TRUE(insertRoutes(0, 2000).ok());
  const uint64_t changes = forwarder_.programmedChanges();
  int added = 0;
  for (int round = 0; round < 16; ++round) {
    SCOPED_TRACE(round);
    const Config next = extended(config(), added + 1);
    std::thread pusher([&, id = electionId_] { pushOf(id, Set::RECONCILE_AND_COMMIT, &next); });
    std::this_thread::sleep_for(std::chrono::milliseconds(round * 2));
    agent_.kill();
    pusher.join();
    ASSERT_NO_FATAL_FAILURE(startAgain());
    if (MessageDifferencer::Equals(get().config(), next)) ++added;
    expectRuns(added == 0 ? config() : extended(config(), added));
    EXPECT_THAT(entries(), SizeIs(2000));
    EXPECT_EQ(disagreement(), "");
    EXPECT_EQ(forwarder_.programmedChanges(), changes);
  }
  EXPECT_GT(added, 0);
}

}  // namespace
