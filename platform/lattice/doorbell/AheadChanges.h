// The changes that a subscriber has passed on ahead of their commit, and the reports on them that
// wait for it.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "platform/lattice/doorbell/DoorbellMessage.h"

namespace Lattice {

class AheadChanges {
 public:
  using Clock = std::chrono::steady_clock;
  struct HeldReport {
    uint64_t entryHandle;
    uint64_t sequence;
    uint16_t errorCode;
    std::string message;
    PackedReport packed() const { return {entryHandle, sequence, errorCode, message}; }
  };

  // From the first one on, until end().
  bool any() const { return isAny_; }
  // They come after the change `committed`, which is the last one of a commit.
  void begin(uint64_t committed, Clock::time_point now) {
    if (std::exchange(isAny_, true)) return;
    upTo_ = committed;
    since_ = now;
  }
  uint64_t upTo() const { return upTo_; }
  uint64_t& upTo() { return upTo_; }
  // Their commit takes longer than an agent does that is well.
  bool areOverdue(Clock::time_point now) const { return isAny_ && now - since_ > patience; }
  // No more of them after that commit and before the next one.
  void blockAfter(uint64_t committed) { blockedAfter_ = committed; }
  bool areBlockedAfter(uint64_t committed) const { return blockedAfter_ == committed; }
  void hold(const PackedReport& report) {
    held_.push_back(
        {report.entryHandle, report.sequence, report.errorCode, std::string(report.text)});
  }
  // They are committed, or will never be. Returns the reports that have waited.
  std::vector<HeldReport> end() {
    isAny_ = false;
    return std::exchange(held_, {});
  }

 private:
  static constexpr std::chrono::seconds patience{1};

  uint64_t upTo_ = 0;
  bool isAny_ = false;
  Clock::time_point since_{};
  uint64_t blockedAfter_ = UINT64_MAX;
  std::vector<HeldReport> held_;
};

}  // namespace Lattice
