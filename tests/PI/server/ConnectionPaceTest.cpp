#include "PI/server/ConnectionPace.h"

#include <gtest/gtest.h>

namespace pi::server {
namespace {

using std::chrono::milliseconds;
using Clock = ConnectionPace::Clock;
using Machine = ConnectionPace::Machine;

Machine machine(uint32_t number) {
  Machine made{};
  for (size_t i = 0; i < 4; ++i) made[12 + i] = static_cast<uint8_t>(number >> (24 - 8 * i));
  return made;
}

int taken(ConnectionPace& pace, const Machine& from, Clock::time_point now, int tries) {
  int count = 0;
  for (int i = 0; i < tries; ++i) count += pace.take(from, now);
  return count;
}

TEST(ConnectionPace, AMachineHasItsRateAndAllHaveTheirs) {
  ConnectionPace pace({.atOnce = 10, .perSecond = 5}, {.atOnce = 25, .perSecond = 100});
  const Clock::time_point begin = Clock::now();
  EXPECT_EQ(taken(pace, machine(1), begin, 100), 10);
  EXPECT_EQ(taken(pace, machine(1), begin + milliseconds(1000), 100), 5);
  EXPECT_EQ(taken(pace, machine(2), begin + milliseconds(1000), 100), 10);  // is not held up
  EXPECT_EQ(taken(pace, machine(3), begin + milliseconds(1000), 8), 8);
  EXPECT_EQ(taken(pace, machine(4), begin + milliseconds(1000), 100), 2);  // of 25
  EXPECT_EQ(taken(pace, machine(1), begin + std::chrono::hours(1), 100), 10);
}

TEST(ConnectionPace, AnyNumberOfMachinesTakesBoundedMemoryAndShutsOutNobody) {
  const int most = ConnectionPace::kMostMachines;
  ConnectionPace pace({.atOnce = 1, .perSecond = 1}, {.atOnce = 1e9, .perSecond = 1});
  const Clock::time_point begin = Clock::now();
  int count = 0;
  for (int i = 0; i < most + 100; ++i) count += pace.take(machine(i), begin);
  EXPECT_EQ(count, most + 1);  // the last ones share a rate
  EXPECT_FALSE(pace.take(machine(0), begin));
  EXPECT_TRUE(pace.take(machine(most + 50), begin + milliseconds(1000)));
}

}  // namespace
}  // namespace pi::server
