// The reports on changes, on their way to the agent: sent at once, late, or never.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "platform/lattice/Subscriber.h"

namespace Forwarder {

// Reports leave in the order they came, also when the latency changes under way.
// Threads: one at a time. Errors: none of its own.
class ReportQueue {
 public:
  using Clock = std::chrono::steady_clock;
  explicit ReportQueue(std::function<Clock::time_point()> now = Clock::now)
      : now_(std::move(now)) {}

  // The subscriber sends the reports. It outlives this object or is set to null; without it,
  // reports wait.
  void subscriberIs(Lattice::Subscriber* subscriber) { subscriber_ = subscriber; }
  void latencyIs(std::chrono::milliseconds latency) { latency_ = latency; }
  void silentIs(bool silent) { silent_ = silent; }  // drops reports from now on

  void report(uint64_t entryHandle, uint64_t sequence, uint16_t errorCode, std::string message);
  void sendDue();  // sends the reports that have waited long enough, and flushes the subscriber
  std::optional<Clock::time_point> nextDue() const;  // of the first that waits

  uint64_t sentCount() const { return sent_; }
  uint64_t droppedCount() const { return dropped_; }
  size_t waitingCount() const { return waiting_.size(); }

 private:
  struct Waiting {
    Clock::time_point due;
    uint64_t entryHandle;
    uint64_t sequence;
    uint16_t errorCode;
    std::string message;
  };
  const std::function<Clock::time_point()> now_;
  Lattice::Subscriber* subscriber_ = nullptr;
  std::chrono::milliseconds latency_{0};
  bool silent_ = false;
  std::deque<Waiting> waiting_;
  uint64_t sent_ = 0;
  uint64_t dropped_ = 0;
};

}  // namespace Forwarder
