// Who works when many Reads are under way.
#include "PI/frontend/read/ReadTurns.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <thread>
#include <vector>

namespace pi::fe::proto {
namespace {

// Each thread works, then has its message sent; the sends of some end only when all the others are
// through.
TEST(ReadTurns, NoMoreWorkAtATimeThanThereAreTurnsAndNobodyWaitsForSlowClients) {
  constexpr int kSlow = 10;
  constexpr int kQuick = 20;
  ReadTurns turns(2);
  std::atomic<int> working{0};
  std::atomic<int> most{0};
  std::latch quickAreThrough(kQuick);
  {
    std::vector<std::jthread> readers;
    for (int reader = 0; reader < kSlow + kQuick; ++reader) {
      readers.emplace_back([&, slow = reader < kSlow] {
        ReadTurn turn(turns);
        for (int message = 0; message < 20; ++message) {
          const int now = ++working;
          for (int known = most; now > known && !most.compare_exchange_weak(known, now);) continue;
          std::this_thread::yield();
          --working;
          const ReadTurn::Sending sending(turn);
          if (slow) quickAreThrough.wait();
        }
        if (!slow) quickAreThrough.count_down();
      });
    }
  }
  EXPECT_LE(most, 2);
  EXPECT_GE(most, 1);
}

}  // namespace
}  // namespace pi::fe::proto
