// How soon changes come, as a subscriber has seen it: whether to look for the next ones or to
// sleep.
#pragma once

#include <chrono>

namespace Lattice {

class ChangePace {
 public:
  using Clock = std::chrono::steady_clock;

  // All that had come is done with.
  void quietIs(Clock::time_point now) {
    if (!inTheMaking_) quietSince_ = now;
  }
  // The agent rang, or changes were seen. A ring without changes tells that some are in the making.
  void ringIs(Clock::time_point now, bool withChanges) {
    if (!withChanges && inTheMaking_) return;
    (inTheMaking_ ? afterRing_ : afterChanges_) = now - quietSince_;
    inTheMaking_ = !withChanges;
    if (inTheMaking_) quietSince_ = now;
  }
  // Whether the next changes will come so soon, if they come as the last ones did.
  bool comeWithin(Clock::duration most) const {
    return (inTheMaking_ ? afterRing_ : afterChanges_) <= most;
  }

 private:
  bool inTheMaking_ = false;
  Clock::time_point quietSince_{};
  Clock::duration afterRing_{};  // from a ring without changes to the changes
  Clock::duration afterChanges_ =
      Clock::duration::max();  // from changes to the next ring or changes
};

}  // namespace Lattice
