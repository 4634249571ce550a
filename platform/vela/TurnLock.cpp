// A mutex that nobody waits for in vain.
#include "platform/vela/TurnLock.h"

namespace Vela {

void TurnLock::lock(Turn turn) {
  uint32_t free = 0;
  if (state_.compare_exchange_strong(free, heldBit, std::memory_order_acquire)) return;
  lockSlowly(turn);
}

void TurnLock::unlock() {
  uint32_t uncontended = heldBit;
  if (state_.compare_exchange_strong(uncontended, 0, std::memory_order_release)) return;
  const std::lock_guard guard(mutex_);
  state_.fetch_sub(heldBit, std::memory_order_release);
  wakeNext();
}

void TurnLock::lockSlowly(Turn turn) {
  std::unique_lock guard(mutex_);
  if (turn == Turn::own && maybePass()) return;
  Waiter me;
  (turn == Turn::own ? own_ : afterOthers_).push_back(&me);
  state_.fetch_add(oneWaiter, std::memory_order_relaxed);
  while (next() != &me || !maybeTake()) {
    me.told = false;
    me.wake.wait(guard);
  }
  state_.fetch_sub(oneWaiter, std::memory_order_relaxed);
  if (!own_.empty()) {
    own_.pop_front();
    countPasses();
  } else {
    afterOthers_.pop_front();
  }
}

// Call with mutex_ held, as all functions below.
bool TurnLock::maybeTake() {
  uint32_t state = state_.load(std::memory_order_relaxed);
  while ((state & heldBit) == 0) {
    if (state_.compare_exchange_weak(state, state | heldBit, std::memory_order_acquire))
      return true;
  }
  return false;
}

bool TurnLock::maybePass() {
  if (!own_.empty() && own_.front()->passed >= mostPasses) return false;
  if (!maybeTake()) return false;
  if (!own_.empty()) ++own_.front()->passed;
  countPasses();
  return true;
}

TurnLock::Waiter* TurnLock::next() const {
  if (!own_.empty()) return own_.front();
  return afterOthers_.empty() ? nullptr : afterOthers_.front();
}

// Of the one that has given way for long: it gets a turn of its own.
void TurnLock::countPasses() {
  if (afterOthers_.empty() || ++afterOthers_.front()->passed < mostPassesOfOthers) return;
  afterOthers_.front()->passed = mostPasses;
  own_.push_back(afterOthers_.front());
  afterOthers_.pop_front();
}

void TurnLock::wakeNext() {
  Waiter* waiter = next();
  if (waiter == nullptr || waiter->told) return;
  waiter->told = true;
  waiter->wake.notify_one();
}

}  // namespace Vela
