// Agent and followers that look at their page rather than sleep.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/lattice/doorbell/ChangePace.h"
#include "tests/platform/lattice/AgentFixture.h"
#include "tests/support/TempDir.h"

namespace Lattice {
namespace {

using namespace TestSupport;
using testing::Contains;
using testing::Field;
using Vela::ActivityLock;

struct LookingTest : FollowedAgentTest {
  bool isProgrammed() const { return agent->programmed == agent->database->lastSequence(); }
  // A batch for whose reports the agent looks. Returns the sequence number of the last change.
  uint64_t urgentBatch(uint32_t from, uint32_t to) {
    const ActivityLock lock;
    uint64_t last = 0;
    agent->database->batchBegin();
    agent->database->urgentIs(true);
    agent->database->listen();
    for (uint32_t i = from; i < to; ++i) last = routes->rowIs(route(i, 1), 100 + i);
    EXPECT_EQ(agent->database->batchEnd().reason(), "");
    return last;
  }
  void stopListening() {
    const ActivityLock lock;
    agent->database->stopListening();
    agent->database->settle();
  }
};

TEST_F(LookingTest, AnAgentThatLooksHearsWithoutAMessage) {
  ASSERT_TRUE(inStep());
  const uint64_t last = urgentBatch(0, 3);
  ASSERT_TRUE(followUntil([&] { return follower->subscriber->sequence() == last; }));
  EXPECT_TRUE(agent->database->lookForProgrammed());
  {
    const ActivityLock lock;
    EXPECT_LT(agent->programmed, last) << "by a message";
  }
  stopListening();
  EXPECT_EQ(agent->programmed, last);
}

// The follower is only then heard by the reactor.
TEST_F(LookingTest, WordThatComesAfterTheLookIsHeard) {
  ASSERT_TRUE(inStep());
  urgentBatch(0, 3);
  stopListening();
  EXPECT_FALSE(isProgrammed());
  EXPECT_TRUE(followUntil([&] { return isProgrammed(); }));
}

TEST_F(LookingTest, FailuresAreHeardBeforeTheWordOnTheRest) {
  ASSERT_TRUE(inStep());
  follower->holdBack = true;
  const uint64_t last = urgentBatch(0, 3);
  ASSERT_TRUE(followUntil([&] { return follower->subscriber->sequence() == last; }));
  for (const auto& [handle, sequence] : follower->held) {
    follower->subscriber->report(handle, sequence, handle == 101 ? 1 : 0, {});
  }
  EXPECT_FALSE(agent->database->lookForProgrammed());
  follower->subscriber->flush();
  ASSERT_TRUE(agent->database->lookForProgrammed());
  stopListening();
  EXPECT_EQ(agent->programmed, last);
  EXPECT_THAT(agent->heard, Contains(testing::AllOf(Field(&Report::entryHandle, 101u),
                                                    Field(&Report::errorCode, testing::Ne(0)))));
}

TEST_F(LookingTest, AFollowerThatLeavesMeanwhileIsNotWaitedFor) {
  ASSERT_TRUE(inStep());
  urgentBatch(0, 3);
  follower.reset();
  EXPECT_FALSE(agent->database->lookForProgrammed());
  stopListening();
  follower = std::make_unique<Follower>(directory.path());
  EXPECT_TRUE(followUntil([&] { return follower->rows["routes"].size() == 3; }));
}

// Each end stops looking at any instant; no news may fall between two looks. A lost wake-up would
// leave the follower asleep until its time-out, which is longer than a batch is waited for.
TEST_F(LookingTest, NoWakeUpIsLostWhileBothStartAndStopLooking) {
  ASSERT_TRUE(inStep());
  std::atomic<bool> done = false;
  std::thread following([&] {
    while (!done) follower->subscriber->follow(60s);
  });
  const auto isHeard = [&] {
    const ActivityLock lock;
    return isProgrammed();
  };
  bool all = true;
  for (uint32_t i = 0; all && i < 500; ++i) {
    urgentBatch(i, i + 1 + i % 3);
    if (i % 2 == 0) agent->database->lookForProgrammed();
    stopListening();
    const auto end = std::chrono::steady_clock::now() + 20s;
    while (!isHeard() && std::chrono::steady_clock::now() < end) std::this_thread::yield();
    all = isHeard();
    if (i % 50 == 0) std::this_thread::sleep_for(2ms);  // the follower goes to sleep
  }
  EXPECT_TRUE(all);
  done = true;
  urgentBatch(0, 1);  // wakes it
  following.join();
  stopListening();
}

TEST(ChangePaceTest, ChangesAreExpectedAsTheLastOnesCame) {
  using namespace std::chrono_literals;
  ChangePace pace;
  const auto zero = ChangePace::Clock::time_point{};
  EXPECT_FALSE(pace.comeWithin(300us)) << "nothing is known yet";
  pace.quietIs(zero);
  pace.ringIs(zero + 200us, true);
  pace.quietIs(zero + 250us);
  EXPECT_TRUE(pace.comeWithin(300us));
  pace.ringIs(zero + 950us, false);  // in the making, but 700 us after the last ones
  EXPECT_TRUE(pace.comeWithin(300us)) << "changes may follow the ring at once";
  pace.ringIs(zero + 2950us, true);
  pace.quietIs(zero + 3000us);
  EXPECT_FALSE(pace.comeWithin(300us)) << "the next ring will be late";
  pace.ringIs(zero + 3100us, false);
  EXPECT_FALSE(pace.comeWithin(300us)) << "and its changes, too";
}

}  // namespace
}  // namespace Lattice
