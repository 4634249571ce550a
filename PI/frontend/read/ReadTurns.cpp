// How many Reads of whole tables work at a time.
#include "PI/frontend/read/ReadTurns.h"

#include <algorithm>

namespace pi::fe::proto {

ReadTurns::Clock::time_point ReadTurns::take() {
  std::unique_lock lock(mutex_);
  takeLocked(lock);
  return Clock::now();
}

void ReadTurns::give() {
  const std::lock_guard lock(mutex_);
  giveLocked();
}

void ReadTurns::giveLocked() {
  if (waiters_.empty()) {
    ++free_;
    return;
  }
  waiters_.front()->isServed = true;
  waiters_.front()->wake.notify_one();
  leaveFirst();
}

void ReadTurns::beginSending(Sender* sender) {
  const std::lock_guard lock(mutex_);
  sender->since = Clock::now();
  senders_.push_back(sender);
}

void ReadTurns::endSending(Sender* sender, Clock::time_point* began) {
  std::unique_lock lock(mutex_);
  if (!sender->isOver) {
    senders_.erase(std::find(senders_.begin(), senders_.end(), sender));
    if (waiters_.empty() || Clock::now() - *began < kTurn) return;
    giveLocked();
  }
  takeLocked(lock);
  *began = Clock::now();
}

// The first that waits looks now and then whether a client takes its time.
void ReadTurns::takeLocked(std::unique_lock<std::mutex>& lock) {
  if (waiters_.empty() && free_ > 0) {
    --free_;
    return;
  }
  Waiter me;
  waiters_.push_back(&me);
  while (!me.isServed) {
    if (waiters_.front() != &me) {
      me.wake.wait(lock);
    } else if (maybeTakeFromSender()) {
      return leaveFirst();
    } else {
      me.wake.wait_for(lock, kSending);
    }
  }
}

bool ReadTurns::maybeTakeFromSender() {
  if (senders_.empty() || Clock::now() - senders_.front()->since < kSending) return false;
  senders_.front()->isOver = true;
  senders_.pop_front();
  return true;
}

// The next one is first now, and has to know.
void ReadTurns::leaveFirst() {
  waiters_.pop_front();
  if (!waiters_.empty()) waiters_.front()->wake.notify_one();
}

}  // namespace pi::fe::proto
