// Brings a group of the target from one mix of members to another.
#include "PI/frontend/target/TargetGroup.h"

#include "PI/frontend/check/ProfileCheck.h"

namespace pi::fe::proto {

namespace {

// Removes the surplus, one repeat at a time.
class Removal {
 public:
  Removal(TargetCalls* calls, uint32_t profileId, uint64_t group, const std::vector<Share>& shares)
      : calls_(calls), profileId_(profileId), group_(group), shares_(shares) {}

  bool doRemoveOne() {  // false: nothing is left to remove
    while (at_ < shares_.size() && shares_[at_].before <= shares_[at_].after + removed_) {
      ++at_;
      removed_ = 0;
    }
    if (at_ == shares_.size()) return false;
    calls_->groupMemberRemove(profileId_, group_, shares_[at_].member);
    ++removed_;
    return true;
  }

 private:
  TargetCalls* const calls_;
  const uint32_t profileId_;
  const uint64_t group_;
  const std::vector<Share>& shares_;
  size_t at_ = 0;
  uint32_t removed_ = 0;  // of the share at at_
};

}  // namespace

void doReshare(TargetCalls* calls, uint32_t profileId, uint64_t group,
               const std::vector<Share>& shares) {
  Removal removal(calls, profileId, group, shares);
  uint64_t standing = 0;
  for (const Share& share : shares) standing += share.before;
  for (const Share& share : shares) {
    for (uint32_t n = share.before; n < share.after; ++n) {
      // A full group takes no more; then the two go hand in hand.
      if (standing >= kMaxRepeats && removal.doRemoveOne()) --standing;
      calls->groupMemberAdd(profileId, group, share.member);
      ++standing;
    }
  }
  while (removal.doRemoveOne()) continue;
}

}  // namespace pi::fe::proto
