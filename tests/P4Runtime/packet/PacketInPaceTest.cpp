// The share of the reactor's time that packets in get, by a clock that the test moves.
#include "P4Runtime/packet/PacketInPace.h"

#include <gtest/gtest.h>

namespace P4Runtime {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;

class PacketInPaceTest : public testing::Test {
 protected:
  // Turns that cost so much, one after another or `apart`, for a second; returns their number.
  int turnsOfASecond(microseconds cost, microseconds apart, bool writes) {
    int turns = 0;
    if (writes) pace_.writingIs(true, now_);
    const auto end = now_ + std::chrono::seconds(1);
    for (; now_ < end; ++turns) {
      now_ += cost;
      const milliseconds pause = pace_.turnEnded(cost, now_);
      paused_ += pause;
      now_ += std::max<microseconds>(pause, apart);
    }
    return turns;
  }

  PacketInPace pace_;
  PacketInPace::Clock::time_point now_{std::chrono::hours(1)};
  milliseconds paused_{0};
};

TEST_F(PacketInPaceTest, AStormGetsItsShareWhileWritesComeAndAllTimeWithoutThem) {
  const int beside = turnsOfASecond(microseconds(500), {}, true);
  EXPECT_LE(beside * microseconds(500),
            milliseconds(1000) / PacketInPace::share + PacketInPace::burst);
  EXPECT_GE(beside * microseconds(500), milliseconds(1000) / PacketInPace::share / 2);
  pace_.writingIs(false, now_);
  now_ += PacketInPace::recently;
  paused_ = {};
  EXPECT_GE(turnsOfASecond(microseconds(500), {}, false), 1999);
  EXPECT_EQ(paused_.count(), 0);
}

// A controller's own protocols: some packets a millisecond.
TEST_F(PacketInPaceTest, FewPacketsNeverWait) {
  turnsOfASecond(microseconds(20), microseconds(1000), true);
  EXPECT_EQ(paused_.count(), 0);
}

TEST_F(PacketInPaceTest, ABurstAfterACalmIsReadAtOnce) {
  for (int i = 0; i < 5; ++i) {
    pace_.writingIs(i % 2 == 0, now_);
    EXPECT_EQ(pace_.turnEnded(PacketInPace::burst / PacketInPace::share, now_).count(), 0);
    now_ += 2 * PacketInPace::burst;
  }
}

}  // namespace
}  // namespace P4Runtime
