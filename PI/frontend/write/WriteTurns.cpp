#include "PI/frontend/write/WriteTurns.h"

#include <vector>

#include "PI/frontend/write/WaitingWrite.h"

namespace pi::fe::proto {

using State = WaitingWrite::State;

void WriteTurns::take(WaitingWrite& write, const Run& run) {
  std::unique_lock lock(mutex_);
  waiting_.push_back(&write);
  if (waiting_.size() == 1) write.state = State::leads;
  write.changed.wait(lock, [&] { return write.state != State::waits; });
  if (write.state == State::done) return;
  const std::vector<WaitingWrite*> all(waiting_.begin(), waiting_.end());
  lock.unlock();
  const size_t count = run(all);
  lock.lock();
  // Told with the lock held: a Write that is told may be gone once the lock is free.
  for (size_t i = 0; i < count; ++i) {
    all[i]->state = State::done;
    if (i > 0) all[i]->changed.notify_one();
    waiting_.pop_front();
  }
  if (waiting_.empty()) return;
  waiting_.front()->state = State::leads;
  waiting_.front()->changed.notify_one();
}

}  // namespace pi::fe::proto
