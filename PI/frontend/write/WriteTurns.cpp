#include "PI/frontend/write/WriteTurns.h"

#include <algorithm>
#include <array>

#include "PI/frontend/write/WaitingWrite.h"

namespace pi::fe::proto {

using State = WaitingWrite::State;

namespace {

constexpr size_t kMostWrites = 64;  // in one turn

}  // namespace

void WriteTurns::take(WaitingWrite& write, const Run& run) {
  std::unique_lock lock(mutex_);
  waiting_.push_back(&write);
  if (waiting_.size() == 1) write.state = State::leads;
  write.changed.wait(lock, [&] { return write.state != State::waits; });
  if (write.state == State::done) return;
  // Without memory of its own: a Write that failed here would leave the others waiting.
  std::array<WaitingWrite*, kMostWrites> all{};
  const size_t ready = std::min(waiting_.size(), all.size());
  std::copy_n(waiting_.begin(), ready, all.begin());
  lock.unlock();
  const size_t count = run({all.data(), ready});
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
