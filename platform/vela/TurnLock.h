// A mutex with bounded waiting: threads that only read give way to threads that act, and each
// waiter is passed a bounded number of times.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>

namespace Vela {

// Not recursive. Taking and releasing it without contention is one atomic operation each.
class TurnLock {
 public:
  enum class Turn {
    own,          // before all waiters of the other kind
    afterOthers,  // once no thread waits for a turn of its own
  };
  // A waiter gets the lock at the latest after so many holds that began after it came. Threads that
  // take the lock again and again may pass others meanwhile: waking one for each hold is slow.
  static constexpr unsigned mostPasses = 16;
  static constexpr unsigned mostPassesOfOthers = 256;  // of a waiter of the other kind

  void lock(Turn turn = Turn::own);
  void unlock();
  size_t waiting() const { return state_.load(std::memory_order_relaxed) / oneWaiter; }

 private:
  struct Waiter {
    std::condition_variable wake;
    bool told = false;  // that it is its turn
    unsigned passed = 0;
  };
  static constexpr uint32_t heldBit = 1;
  static constexpr uint32_t oneWaiter = 2;

  void lockSlowly(Turn turn);
  bool maybeTake();
  bool maybePass();
  Waiter* next() const;
  void countPasses();
  void wakeNext();

  std::atomic<uint32_t> state_{0};  // heldBit, and oneWaiter for each that waits
  std::mutex mutex_;                // guards own_ and afterOthers_
  std::deque<Waiter*> own_;
  std::deque<Waiter*> afterOthers_;
};

}  // namespace Vela
