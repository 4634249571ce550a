// The turns of a device's Writes. Writes that wait at the same time share the next turn, and with
// it the commit and the wait for the forwarding plane.
#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <span>

namespace pi::fe::proto {

struct WaitingWrite;

// Thread-safe.
class WriteTurns {
 public:
  // Runs some of the Writes, at least the first; returns how many, from the front. Must not throw.
  using Run = std::function<size_t(std::span<WaitingWrite* const> writes)>;

  // Returns once the Write was run, by this thread or by that of another Write.
  void take(WaitingWrite& write, const Run& run);

 private:
  std::mutex mutex_;                   // guards waiting_ and the states of its Writes
  std::deque<WaitingWrite*> waiting_;  // the thread of the first one runs it, and others with it
};

}  // namespace pi::fe::proto
