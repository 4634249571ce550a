// How much of the reactor's time packets for controllers may take while Writes come.
#pragma once

#include <chrono>

namespace P4Runtime {

// Each packet in costs processor time here, on its stream, and in its controller. A storm of them
// must not slow Writes, so while Writes come, packets get a small share of the reactor's time;
// packets beyond that wait in the kernel, which drops them for nothing when its buffer is full.
// Without Writes there is no bound. The caller brings the time.
class PacketInPace {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr int share = 20;                           // one part in so many
  static constexpr std::chrono::milliseconds burst{20};      // free after a calm of that length
  static constexpr std::chrono::milliseconds recently{100};  // a Write counts for so long after it

  // A Write begins or ends.
  void writingIs(bool writing, Clock::time_point now) {
    writing_ = writing;
    lastWrite_ = now;
  }
  // A turn that took so much processor time has ended. Returns how long packets are to wait; zero:
  // not at all.
  std::chrono::milliseconds turnEnded(Clock::duration cost, Clock::time_point now);

 private:
  bool writing_ = false;
  Clock::time_point lastWrite_;
  Clock::time_point paidUntil_;  // the work done so far has used up the share until then
};

}  // namespace P4Runtime
