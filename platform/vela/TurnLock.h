// A mutex that nobody waits for in vain: threads that only look give way to those that act, and
// each waiter is passed a bounded number of times.
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
    own,          // before all of those that come after others
    afterOthers,  // once nobody waits for a turn of their own
  };
  // A waiter gets the lock at the latest after so many holds that began after it came. Threads that
  // take the lock again and again may pass others meanwhile: waking one for each hold is slow.
  static constexpr unsigned kMostPasses = 16;
  static constexpr unsigned kMostPassesOfOthers = 256;  // of one that came after others

  void lock(Turn turn = Turn::own);
  void unlock();
  size_t waiting() const { return state_.load(std::memory_order_relaxed) / kWaiter; }

 private:
  struct Waiter {
    std::condition_variable wake;
    bool told = false;  // that it is its turn
    unsigned passed = 0;
  };
  static constexpr uint32_t kHeld = 1;
  static constexpr uint32_t kWaiter = 2;

  void lockSlowly(Turn turn);
  bool maybeTake();
  bool maybePass();
  Waiter* next() const;
  void countPasses();
  void wakeNext();

  std::atomic<uint32_t> state_{0};  // kHeld, and kWaiter for each that waits
  std::mutex mutex_;                // guards what follows
  std::deque<Waiter*> own_;
  std::deque<Waiter*> afterOthers_;
};

}  // namespace Vela
