// Followers that program the changes of a batch ahead of its commit.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <random>

#include "tests/platform/brine/FailingStore.h"
#include "tests/platform/lattice/AgentFixture.h"
#include "tests/support/TempDir.h"

namespace Lattice {
namespace {

using namespace TestSupport;
using testing::Each;
using testing::Field;
using Vela::ActivityLock;
using Rows = std::map<std::string, std::string>;

// A table of 50 routes to next hop 1, and a follower that reads ahead.
struct AheadTest : testing::Test {
  static constexpr uint32_t routesAtFirst = 50;

  AheadTest() {
    startAgent();
    follower->subscriber->readsAheadIs(true);
    begin();
    write(0, routesAtFirst, 1);
    end();
    EXPECT_TRUE(followUntil([&] { return agent->inStep > 0 && isProgrammed(); }));
    agent->heard.clear();
    follower->changes = follower->ends = follower->snapshots = 0;
  }
  void startAgent() {
    auto owned = std::make_unique<FailingStore>(directory.path());
    store = owned.get();
    agent = std::make_unique<Agent>(directory.path(), std::move(owned));
    routes = &agent->table("routes");
  }
  void begin() {
    const ActivityLock lock;
    agent->database->batchBegin();
    agent->database->urgentIs(true);
  }
  // Entry handles are 1000 more than the numbers of routes.
  void write(uint32_t from, uint32_t to, uint32_t nexthop) {
    const ActivityLock lock;
    for (uint32_t i = from; i < to; ++i) routes->rowIs(route(i, nexthop), 1000 + i);
  }
  void erase(uint32_t from, uint32_t to) {
    const ActivityLock lock;
    for (uint32_t i = from; i < to; ++i) routes->rowDel(route(i, 0).key, 1000 + i);
  }
  void show() {
    const ActivityLock lock;
    agent->database->showAhead();
  }
  bool end() {
    const ActivityLock lock;
    const bool isStored = agent->database->batchEnd().ok();
    agent->database->settle();
    return isStored;
  }
  bool isProgrammed() const { return agent->programmed == agent->database->lastSequence(); }
  bool followUntil(const std::function<bool()>& done) {
    return Agent::followUntil({follower->subscriber.get()}, done);
  }
  // Until the follower has `rows` of them.
  bool followTo(size_t rows) {
    return followUntil([&] { return follower->rows["routes"].size() == rows; });
  }
  Rows committedRows() {
    const ActivityLock lock;
    Rows rows;
    routes->forEachCommitted([&](const StoredRow& row) {
      return rows.emplace(std::string(row.key), std::string(row.value)).second;
    });
    return rows;
  }
  const Rows& followedRows() { return follower->rows["routes"]; }

  TempDir directory;
  FailingStore* store = nullptr;
  std::unique_ptr<Agent> agent;
  ArTableInterface* routes = nullptr;
  std::unique_ptr<Follower> follower = std::make_unique<Follower>(directory.path());
};

TEST_F(AheadTest, RowsComeBeforeTheirCommitAndWordOfThemAfterIt) {
  const uint64_t before = agent->programmed;
  begin();
  write(50, 250, 2);
  erase(0, 10);
  show();
  ASSERT_TRUE(followTo(240));
  write(250, 300, 2);
  show();
  ASSERT_TRUE(followTo(290));
  follower->subscriber->flush();
  for (int i = 0; i < 5; ++i) follower->subscriber->follow(1ms);
  EXPECT_EQ(follower->ends, 0u);
  EXPECT_TRUE(agent->heard.empty());
  EXPECT_EQ(agent->programmed, before);
  EXPECT_EQ(follower->subscriber->sequence(), before);
  write(300, 310, 2);  // these are not shown
  ASSERT_TRUE(end());
  ASSERT_TRUE(followUntil([&] { return isProgrammed(); }));
  EXPECT_EQ(followedRows(), committedRows());
  EXPECT_EQ(follower->changes, 270u) << "each once";
  EXPECT_EQ(follower->ends, 1u);
  EXPECT_EQ(follower->snapshots, 0u);
  EXPECT_THAT(agent->heard, Each(Field(&Report::sequence, testing::Gt(before))));
}

TEST_F(AheadTest, SmallBatchesWaitForTheirCommit) {
  for (const uint32_t rows : {100, 200}) {
    begin();
    write(0, rows, 1000 + rows);
    show();
    const bool isAhead = rows > 120;
    const size_t changes = follower->changes;
    const size_t expected = changes + (isAhead ? rows : 0);
    ASSERT_TRUE(followUntil([&] { return follower->changes == expected; }));
    for (int i = 0; i < 5; ++i) follower->subscriber->follow(1ms);
    EXPECT_EQ(follower->changes, expected);
    ASSERT_TRUE(end());
    ASSERT_TRUE(followUntil([&] { return isProgrammed(); }));
  }
}

// Some of the reports come in no order.
TEST_F(AheadTest, ReportsWaitForTheCommit) {
  const auto failures = [&] { return std::ranges::count(agent->heard, 1, &Report::errorCode); };
  for (const bool isLate : {false, true}) {
    SCOPED_TRACE(isLate);
    follower->holdBack = isLate;
    follower->failing = isLate ? 0 : 1060;
    begin();
    write(50, 200, 2 + isLate);
    show();
    const uint64_t before = agent->programmed;
    const size_t changes = follower->changes;
    ASSERT_TRUE(followUntil([&] { return follower->changes == changes + 150; }));
    std::ranges::reverse(follower->held);
    follower->reportAll();
    follower->subscriber->flush();
    for (int i = 0; i < 5; ++i) follower->subscriber->follow(1ms);
    {
      const ActivityLock lock;
      EXPECT_EQ(agent->programmed, before);
      EXPECT_TRUE(agent->heard.empty());
    }
    ASSERT_TRUE(end());
    ASSERT_TRUE(followUntil([&] { return isProgrammed(); }));
    EXPECT_EQ(agent->heard.size(), 150u);
    EXPECT_EQ(failures(), isLate ? 0 : 1);
    agent->heard.clear();
  }
}

TEST_F(AheadTest, ABatchThatCannotBeStoredLeavesTheRowsAsTheyWere) {
  follower->failing = 1060;
  begin();
  write(40, 200, 2);
  erase(0, 10);
  show();
  ASSERT_TRUE(followTo(190));
  store->failing = true;
  EXPECT_FALSE(end());
  pollfd ring{follower->subscriber->descriptor(), POLLIN, 0};
  EXPECT_EQ(poll(&ring, 1, 20000), 1) << "nothing wakes the follower";
  ASSERT_TRUE(followTo(50));
  EXPECT_EQ(followedRows(), committedRows());
  EXPECT_EQ(follower->snapshots, 1u);
  EXPECT_EQ(follower->losses, 0u);
  store->failing = false;
  follower->failing = 0;
  begin();
  write(60, 300, 3);
  show();
  ASSERT_TRUE(followTo(290));
  ASSERT_TRUE(end());
  ASSERT_TRUE(followUntil([&] { return isProgrammed(); }));
  EXPECT_EQ(followedRows(), committedRows());
  EXPECT_THAT(agent->heard, Each(Field(&Report::errorCode, 0)));
}

TEST_F(AheadTest, AnAgentThatGoesAwayLeavesTheRowsOfItsLastCommit) {
  const Rows before = committedRows();
  begin();
  write(40, 200, 2);  // some of them change
  erase(0, 10);
  show();
  ASSERT_TRUE(followTo(190));
  write(100, 220, 3);  // without a word to the follower
  agent.reset();
  const size_t ends = follower->ends;
  for (int i = 0; i < 5 && follower->losses == 0; ++i) follower->subscriber->follow(1ms);
  EXPECT_EQ(follower->losses, 1u);
  EXPECT_EQ(follower->ends, ends + 1);
  EXPECT_EQ(followedRows(), before);
  startAgent();
  begin();
  write(20, 60, 3);
  ASSERT_TRUE(end());
  ASSERT_TRUE(followUntil([&] { return agent->inStep > 0 && isProgrammed(); }));
  EXPECT_EQ(followedRows(), committedRows());
  EXPECT_EQ(follower->losses, 1u);
  EXPECT_EQ(follower->snapshots, 1u);
}

// The follower's other work waits for the end of the changes.
TEST_F(AheadTest, ABatchThatHangsIsGivenUpUntilItsCommit) {
  const Rows before = committedRows();
  begin();
  write(40, 200, 2);
  erase(0, 10);
  show();
  ASSERT_TRUE(followTo(190));
  follower->holdBack = true;
  ASSERT_TRUE(followTo(50));
  EXPECT_EQ(followedRows(), before);
  EXPECT_EQ(follower->ends, 1u);
  follower->holdBack = false;
  follower->reportAll();
  write(200, 300, 2);
  show();
  for (int i = 0; i < 5; ++i) follower->subscriber->follow(1ms);
  EXPECT_EQ(followedRows(), before);
  ASSERT_TRUE(end());
  ASSERT_TRUE(followUntil([&] { return isProgrammed() && followedRows() == committedRows(); }));
  EXPECT_EQ(follower->snapshots, 1u);
  EXPECT_THAT(agent->heard, Each(Field(&Report::errorCode, 0)));
  begin();
  write(0, 150, 3);
  show();
  EXPECT_TRUE(followTo(300)) << "the next batch is read ahead again";
  ASSERT_TRUE(end());
}

// A driver may take seconds for a row. Its next look meets other changes under the same numbers.
TEST_F(AheadTest, ARestartedAgentsChangesAreNotTakenForThoseOfBefore) {
  follower->onRow = [&](const RowChange&) {
    follower->onRow = nullptr;
    agent.reset();
    startAgent();
    begin();
    write(500, 800, 3);
    EXPECT_TRUE(end());
  };
  begin();
  write(50, 200, 2);
  show();
  ASSERT_TRUE(followUntil([&] { return !follower->onRow; }));
  EXPECT_TRUE(followUntil([&] { return followedRows() == committedRows(); }));
}

TEST_F(AheadTest, AnAgentThatGoesAwayAtItsCommitHearsNothingMore) {
  follower->failing = 1060;
  follower->failure = std::string(1000, '.');
  follower->onRow = [&](const RowChange& change) {
    follower->failing = change.entryHandle + 1;  // each fails
    if (change.entryHandle != 1000 + 399) return;
    EXPECT_TRUE(end());
    agent.reset();
  };
  begin();
  write(60, 400, 2);
  const Rows expected = [&] {
    Rows rows = committedRows();
    for (uint32_t i = 60; i < 400; ++i) rows[route(i, 2).key] = route(i, 2).value;
    return rows;
  }();
  show();
  for (int i = 0; i < 1000 && agent; ++i) follower->subscriber->follow(5ms);
  ASSERT_FALSE(agent);
  for (int i = 0; i < 5; ++i) follower->subscriber->follow(1ms);
  follower->onRow = nullptr;
  follower->failing = 0;
  startAgent();
  ASSERT_TRUE(followUntil([&] { return agent->inStep > 0; }));
  EXPECT_EQ(followedRows(), expected);
}

TEST_F(AheadTest, OnlyFollowersThatReadAheadSeeSuchChanges) {
  Follower other(directory.path(), "other");
  const auto followBoth = [&](const std::function<bool()>& done) {
    return Agent::followUntil({follower->subscriber.get(), other.subscriber.get()}, done);
  };
  ASSERT_TRUE(followBoth([&] { return agent->database->subscribers().size() == 2; }));
  ASSERT_TRUE(followBoth([&] { return other.rows["routes"].size() == 50; }));
  begin();
  write(50, 200, 2);
  show();
  ASSERT_TRUE(followBoth([&] { return followedRows().size() == 200; }));
  EXPECT_EQ(other.rows["routes"].size(), 50u);
  ASSERT_TRUE(end());
  ASSERT_TRUE(followBoth([&] { return isProgrammed() && agent->heard.size() >= 150; }));
  EXPECT_EQ(other.rows["routes"], committedRows());
  EXPECT_EQ(followedRows(), committedRows());
}

TEST_F(AheadTest, RowsOfATableThatIsNotKnownYetWait) {
  begin();
  ArTableInterface& later = agent->table("later");
  {
    const ActivityLock lock;
    for (uint32_t i = 0; i < 150; ++i) later.rowIs(route(i, 1), 5000 + i);
  }
  write(50, 200, 2);
  show();
  for (int i = 0; i < 5; ++i) follower->subscriber->follow(1ms);
  EXPECT_FALSE(follower->rows.contains("later"));
  ASSERT_TRUE(end());
  ASSERT_TRUE(followUntil([&] { return isProgrammed(); }));
  EXPECT_EQ(follower->rows["later"].size(), 150u);
  EXPECT_EQ(followedRows(), committedRows());
  EXPECT_EQ(follower->snapshots, 0u);
}

// The follower is on a thread of its own; some batches cannot be stored, and some wait until it has
// read all of them ahead.
TEST_F(AheadTest, RowsAgreeAfterAnyBatches) {
  std::atomic<bool> done = false;
  std::atomic<uint64_t> seen = 0;
  follower->onRow = [&](const RowChange& change) { seen = change.sequence; };
  std::thread following([&] {
    while (!done) follower->subscriber->follow(20ms);
  });
  const auto becomesTrue = [](const auto& isSo) {
    const auto until = std::chrono::steady_clock::now() + 20s;
    while (!isSo() && std::chrono::steady_clock::now() < until) std::this_thread::yield();
    return isSo();
  };
  std::mt19937 random(7);
  for (int batch = 0; batch < 200 && !HasFailure(); ++batch) {
    // Of a row that is being written again, the follower may see nothing until the commit.
    const bool waits = batch % 4 == 0;
    begin();
    for (uint32_t burst = 0; burst < 6; ++burst) {
      const uint32_t first = waits ? burst * 64 : random() % 300;
      random() % 4 == 0 ? erase(first, first + 64) : write(first, first + 64, random() % 9);
      show();
    }
    EXPECT_TRUE(!waits || becomesTrue([&] { return seen == store->nextSequence() - 1; }));
    store->failing = random() % 4 == 0;
    EXPECT_EQ(end(), !store->failing);
    store->failing = false;
  }
  EXPECT_TRUE(becomesTrue([&] {
    const ActivityLock lock;
    return isProgrammed();
  }));
  done = true;
  following.join();
  EXPECT_EQ(followedRows(), committedRows());
}

}  // namespace
}  // namespace Lattice
