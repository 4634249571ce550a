// SIGKILL of the agent or of the forwarder, at any instant, loses nothing confirmed.
#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>

#include "tests/e2e/Load.h"

using namespace TestSupport;

namespace {

// Waits until the instant at which to kill: some while into the load, or at once.
void waitForInstant(Process& process, std::mt19937& random) {
  process.exitStatus(std::chrono::microseconds(random() % 20000));
}

TEST(AgentKilled, UnderLoadKeepsWhatItAcknowledgedAndNothingByHalves) {
  const uint32_t seed = printedSeed();
  std::mt19937 random(seed);
  Switch tested;
  ASSERT_TRUE(tested.start());
  Load load(tested, seed);
  for (int round = 0; round < 32; ++round) {
    SCOPED_TRACE(testing::Message() << "round " << round);
    const uint64_t programmedBefore = tested.forwarder.programmedChanges();
    const uint64_t sentBefore = load.sentRows();
    const uint64_t acknowledgedBefore = load.acknowledged();
    load.start();
    // The first batches are the ones that meet a fresh agent; later rounds go deeper.
    const uint64_t depth = random() % 8;
    waitUntil([&] { return load.acknowledged() >= acknowledgedBefore + depth || !load.writing(); });
    waitForInstant(tested.agent.process(), random);
    tested.agent.kill();
    load.stop();
    if (round % 4 == 3) {  // and once more while it restores
      tested.agent.start();
      waitForInstant(tested.agent.process(), random);
      tested.agent.kill();
    }
    ASSERT_TRUE(tested.startAgent());
    ASSERT_TRUE(tested.connectController());
    ASSERT_EQ(load.broken(), "");
    ASSERT_EQ(tested.disagreement(), "");
    // Rows that did not change were not programmed again: at most each row that was sent, and
    // the rows of the one batch in flight taken back.
    const uint64_t sent = load.sentRows() - sentBefore;
    EXPECT_LE(tested.forwarder.programmedChanges() - programmedBefore, sent + load.lastBatchRows());
  }
}

TEST(AgentKilled, WhileTablesFailKeepsEachUpdateWholeOrNotAtAll) {
  const uint32_t seed = printedSeed();
  std::mt19937 random(seed);
  Switch tested;
  ASSERT_TRUE(tested.start());
  Load load(tested, seed);
  for (int i = 0; i < 20; ++i) ASSERT_TRUE(load.writeOnce().ok());
  const char* tables[] = {"ipv4_route",        "acl", "wcmp", "lag", "lag_selector.member",
                          "lag_selector.group"};
  for (int round = 0; round < 24; ++round) {
    SCOPED_TRACE(testing::Message() << "round " << round);
    const std::string failing = tables[random() % std::size(tables)];
    ASSERT_EQ(tested.forwarder.ctl({"fail-table", failing}).exit.code, 0);
    std::thread writer([&] {
      for (WriteOutcome outcome; outcome.ok() || !outcome.errors.empty();) {
        outcome = load.writeOnce();
      }
    });
    waitForInstant(tested.agent.process(), random);
    tested.agent.kill();
    writer.join();
    ASSERT_EQ(tested.forwarder.ctl({"clear"}).exit.code, 0);
    ASSERT_TRUE(tested.startAgent());
    ASSERT_TRUE(tested.connectController());
    ASSERT_EQ(load.brokenApart(), "");
    ASSERT_EQ(tested.disagreement(), "");
  }
}

// Four generations of a thousand routes: every fourth route is absent, another one each time.
constexpr uint32_t generations = 4;
bool isThere(uint32_t route, uint32_t generation) {
  return (route + generation) % generations != 0;
}
// From the generation before to this one: an update for each route.
std::vector<p4::v1::Update> largeWrite(const Switch& tested, uint32_t generation) {
  std::vector<p4::v1::Update> updates;
  for (uint32_t i = 0; i < 1000; ++i) {
    const auto route = tested.route(i, generation);
    const bool stays = isThere(i, generation);
    const bool isNew = !isThere(i, generation + generations - 1);
    updates.push_back(isNew ? insertOf(route) : stays ? modifyOf(route) : deleteOf(route));
  }
  return updates;
}
View routesOf(const Switch& tested, uint32_t generation) {
  std::vector<p4::v1::Entity> routes;
  for (uint32_t i = 0; i < 1000; ++i) {
    if (isThere(i, generation)) routes.push_back(entityOf(tested.route(i, generation)));
  }
  return viewOf(tested.pipeline(), routes);
}

// The forwarder programs a large Write while the agent is yet to make the rest of it.
TEST(AgentKilled, AmidLargeWritesKeepsEachWholeOrNotAtAll) {
  std::mt19937 random(printedSeed());
  Switch tested;
  ASSERT_TRUE(tested.start());
  const View others = tested.controllerView();
  std::vector<p4::v1::Update> inserts;
  for (uint32_t i = 0; i < 1000; ++i) {
    if (isThere(i, 0)) inserts.push_back(insertOf(tested.route(i, 0)));
  }
  ASSERT_TRUE(tested.write(inserts).ok());
  std::vector<std::vector<p4::v1::Update>> writes;
  for (uint32_t i = 0; i < generations; ++i) writes.push_back(largeWrite(tested, i));
  std::atomic<uint32_t> acknowledged = 0;
  const auto differenceFrom = [&](uint32_t generation) {
    View expected = routesOf(tested, generation % generations);
    expected.insert(others.begin(), others.end());
    return difference("expected", expected, "read", tested.controllerView());
  };
  for (int round = 0; round < 16; ++round) {
    SCOPED_TRACE(testing::Message() << "round " << round);
    const uint32_t before = acknowledged;
    std::thread writer([&] {
      while (tested.write(writes[(acknowledged + 1) % generations]).ok()) ++acknowledged;
    });
    EXPECT_TRUE(waitUntil([&] { return acknowledged > before; }));
    waitForInstant(tested.agent.process(), random);
    tested.agent.kill();
    writer.join();
    ASSERT_TRUE(tested.startAgent());
    ASSERT_TRUE(tested.connectController());
    ASSERT_EQ(tested.disagreement(), "");
    if (differenceFrom(acknowledged + 1).empty()) ++acknowledged;
    ASSERT_EQ(differenceFrom(acknowledged), "");
  }
}

TEST(AgentKilled, WhileNobodyWritesCostsTheForwarderNothing) {
  Switch tested;
  ASSERT_TRUE(tested.start());
  ASSERT_TRUE(tested.insertRoutes(0, 500, 7).ok());
  const Pipeline& router = tested.pipeline();
  ASSERT_TRUE(
      tested
          .write(
              {insertOf(Router::aclRule(router, 1)),
               insertOf(Router::aclRule(router, 2).meter(1, 2, 3, 4)),
               insertOf(Router::member(router, 5, 1)), insertOf(Router::member(router, 6, 2)),
               insertOf(Router::group(router, 5, {{5, 3}, {6, 1}})),
               insertOf(Router::group(router, 6, {})), insertOf(Router::wcmp(router, 1).group(5)),
               insertOf(Router::wcmp(router, 2).group(6)), insertOf(Router::lag(router, 1, 10, 3))})
          .ok());
  const View before = tested.controllerView();
  const uint64_t programmed = tested.forwarder.programmedChanges();
  for (int restart = 0; restart < 3; ++restart) {
    ASSERT_TRUE(tested.restartAgent());
    EXPECT_EQ(difference("before", before, "after", tested.controllerView()), "");
    EXPECT_EQ(tested.disagreement(), "");
  }
  EXPECT_EQ(tested.forwarder.programmedChanges(), programmed);
  // Handles are fresh ones: entries written now harm no restored one.
  EXPECT_TRUE(tested.insertRoutes(500, 600, 8).ok());
  EXPECT_TRUE(tested
                  .write({insertOf(Router::member(router, 1, 1)),
                          modifyOf(Router::group(router, 6, {{1, 1}, {5, 1}})),
                          insertOf(Router::group(router, 1, {{1, 2}})),
                          insertOf(Router::lag(router, 2, 10, 3))})
                  .ok());
  EXPECT_EQ(tested.disagreement(), "");
  EXPECT_EQ(tested.controllerView().size(), before.size() + 103);
}

TEST(ForwarderKilled, UnderLoadFailsNoWrite) {
  const uint32_t seed = printedSeed();
  std::mt19937 random(seed);
  Switch tested;
  ASSERT_TRUE(tested.start());
  Load load(tested, seed);
  load.start();
  for (int round = 0; round < 10; ++round) {
    SCOPED_TRACE(testing::Message() << "round " << round);
    const uint64_t acknowledged = load.acknowledged();
    waitUntil([&] { return load.acknowledged() > acknowledged + 2 || !load.writing(); });
    waitForInstant(tested.forwarder.process(), random);
    tested.forwarder.kill();
    ASSERT_TRUE(tested.startForwarder());
    if (!load.writing()) break;
  }
  load.stop();
  EXPECT_TRUE(load.failure().ok()) << testing::PrintToString(load.failure());
  EXPECT_EQ(load.broken(), "");
  EXPECT_EQ(tested.disagreement(), "");
}

}  // namespace
