// What the forwarder says of the changes it was given: at once, late, or never.
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

// Reports leave in the order they came, also when the latency changes under way. One thread uses
// it.
class ReportQueue {
 public:
  using Clock = std::chrono::steady_clock;
  explicit ReportQueue(std::function<Clock::time_point()> now = Clock::now)
      : now_(std::move(now)) {}

  // Takes the reports; outlives this or is set to null. Without one they wait.
  void subscriberIs(Lattice::Subscriber* subscriber) { subscriber_ = subscriber; }
  void latencyIs(std::chrono::milliseconds latency) { latency_ = latency; }
  void silentIs(bool silent) { silent_ = silent; }  // drops what is reported from now on

  void report(uint64_t entryHandle, uint64_t sequence, uint16_t errorCode, std::string message);
  void sendDue();  // passes on what has waited long enough, and flushes the subscriber if so
  std::optional<Clock::time_point> nextDue() const;  // when sendDue() will have something to do

  uint64_t sent() const { return sent_; }
  uint64_t dropped() const { return dropped_; }
  size_t waiting() const { return waiting_.size(); }

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
