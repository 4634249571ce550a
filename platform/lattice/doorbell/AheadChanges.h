// The changes that a subscriber has passed on ahead of their commit, and the reports on them that
// wait for it.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "platform/lattice/doorbell/DoorbellMessage.h"

namespace Lattice {

class AheadChanges {
 public:
  struct HeldReport {
    uint64_t entryHandle;
    uint64_t sequence;
    uint16_t errorCode;
    std::string message;
    PackedReport packed() const { return {entryHandle, sequence, errorCode, message}; }
  };

  // From the first one on, until commit() or forget().
  bool any() const { return isAny_; }
  // They come after the change `committed`, which is the last one of a commit.
  void begin(uint64_t committed) {
    if (!std::exchange(isAny_, true)) upTo_ = committed;
  }
  uint64_t upTo() const { return upTo_; }
  uint64_t& upTo() { return upTo_; }
  // No more of them before the commit.
  bool isBlocked() const { return isBlocked_; }
  void block() { isBlocked_ = true; }
  void hold(const PackedReport& report) {
    held_.push_back(
        {report.entryHandle, report.sequence, report.errorCode, std::string(report.text)});
  }
  // They are committed, or will never be. Returns the reports that have waited.
  std::vector<HeldReport> end() {
    isAny_ = isBlocked_ = false;
    return std::exchange(held_, {});
  }

 private:
  uint64_t upTo_ = 0;
  bool isAny_ = false;
  bool isBlocked_ = false;
  std::vector<HeldReport> held_;
};

}  // namespace Lattice
