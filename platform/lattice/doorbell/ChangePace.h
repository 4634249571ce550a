// How soon changes come, as a subscriber has seen it: whether to look for the next ones or to
// sleep.
#pragma once

#include <chrono>
#include <utility>

namespace Lattice {

class ChangePace {
 public:
  using Clock = std::chrono::steady_clock;

  // All that had come is done with.
  void quietIs(Clock::time_point now) {
    if (!inTheMaking_ && !isUnderWay_) quietSince_ = now;
  }
  // Changes were seen that are yet to be committed: the commit is as good as there.
  void aheadIs(Clock::time_point now) {
    if (std::exchange(isUnderWay_, true)) return;
    (inTheMaking_ ? afterRing_ : afterChanges_) = now - quietSince_;
    inTheMaking_ = false;
  }
  // The agent rang, or changes were seen. A ring without changes tells that some are in the making.
  void ringIs(Clock::time_point now, bool withChanges) {
    if (std::exchange(isUnderWay_, false)) return;
    if (!withChanges && inTheMaking_) return;
    (inTheMaking_ ? afterRing_ : afterChanges_) = now - quietSince_;
    inTheMaking_ = !withChanges;
    if (inTheMaking_) quietSince_ = now;
  }
  bool isInTheMaking() const { return inTheMaking_ || isUnderWay_; }
  // Whether the next changes will come so soon, if they come as the last ones did.
  bool comeWithin(Clock::duration most) const {
    return isUnderWay_ || (inTheMaking_ ? afterRing_ : afterChanges_) <= most;
  }

 private:
  bool inTheMaking_ = false;
  bool isUnderWay_ = false;
  Clock::time_point quietSince_{};
  Clock::duration afterRing_{};  // from a ring without changes to the changes
  Clock::duration afterChanges_ =
      Clock::duration::max();  // from changes to the next ring or changes
};

}  // namespace Lattice
