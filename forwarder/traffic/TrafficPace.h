// When synthetic packets are due at a rate, and whether the forwarder keeps up with it.
#pragma once

#include <chrono>
#include <cstdint>

namespace Forwarder {

// Threads: one at a time. The caller tells the time.
class TrafficPace {
 public:
  using Time = std::chrono::steady_clock::time_point;

  void start(uint64_t rate, Time now);  // packets a second, above 0
  // Drops the packets that are more than a tenth of a second late. Returns their number.
  uint64_t skipOverdue(Time now);
  uint64_t due(Time now) const;  // packets to send by now
  void handleSent(uint64_t packets);
  // Ends a measurement that has taken a second or more; false before.
  bool maybeMeasure(Time now);
  Time nextDue() const;

  // Of the last whole second:
  uint64_t achievedRate() const { return achieved_; }  // packets a second
  bool behind() const { return behind_; }              // more than one in a hundred was skipped

 private:
  uint64_t rate_ = 0;
  Time countedFrom_{};
  uint64_t counted_ = 0;  // packets sent or skipped since
  Time secondBegan_{};
  uint64_t sentInSecond_ = 0;
  uint64_t skippedInSecond_ = 0;
  uint64_t achieved_ = 0;
  bool behind_ = false;
};

}  // namespace Forwarder
