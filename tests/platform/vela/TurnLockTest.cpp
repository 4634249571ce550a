// Who gets the lock next, and how often waiters are passed.
#include "platform/vela/TurnLock.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace Vela {
namespace {

using Turn = TurnLock::Turn;

class TurnLockTest : public testing::Test {
 protected:
  // A thread that takes the lock once; returns when it waits.
  std::jthread waiter(Turn turn, std::function<void()> whenHeld) {
    const size_t before = lock.waiting();
    std::jthread thread([this, turn, whenHeld = std::move(whenHeld)] {
      lock.lock(turn);
      whenHeld();
      lock.unlock();
    });
    while (lock.waiting() == before) std::this_thread::yield();
    return thread;
  }
  // How many holds of a thread that always wants the lock a waiter sees pass.
  unsigned passesOf(Turn turn) {
    std::atomic<bool> served = false;
    unsigned passes = 0;
    lock.lock();
    const std::jthread waits = waiter(turn, [&] { served = true; });
    while (!served) {
      lock.unlock();
      lock.lock();
      ++passes;
    }
    lock.unlock();
    return passes;
  }

  TurnLock lock;
};

TEST_F(TurnLockTest, ThoseThatComeAfterOthersDoSo) {
  std::vector<std::string> order;  // guarded by the lock
  lock.lock();
  {
    const std::jthread reader = waiter(Turn::afterOthers, [&] { order.emplace_back("reader"); });
    const std::jthread second =
        waiter(Turn::afterOthers, [&] { order.emplace_back("second reader"); });
    const std::jthread write = waiter(Turn::own, [&] { order.emplace_back("Write"); });
    const std::jthread reactor = waiter(Turn::own, [&] { order.emplace_back("reactor"); });
    lock.unlock();
  }
  EXPECT_THAT(order, testing::ElementsAre("Write", "reactor", "reader", "second reader"));
}

TEST_F(TurnLockTest, NobodyIsPassedForEver) {
  EXPECT_LE(passesOf(Turn::own), TurnLock::mostPasses + 1);
  EXPECT_LE(passesOf(Turn::afterOthers), TurnLock::mostPassesOfOthers + 1);
}

TEST_F(TurnLockTest, IsHeldByOneThreadAtATime) {
  int value = 0;  // guarded by the lock; ThreadSanitizer watches
  {
    std::vector<std::jthread> threads;
    for (int t = 0; t < 6; ++t) {
      threads.emplace_back([&, turn = t % 2 == 0 ? Turn::own : Turn::afterOthers] {
        for (int i = 0; i < 5000; ++i) {
          lock.lock(turn);
          ++value;
          lock.unlock();
        }
      });
    }
  }
  EXPECT_EQ(value, 6 * 5000);
  EXPECT_EQ(lock.waiting(), 0u);
}

}  // namespace
}  // namespace Vela
