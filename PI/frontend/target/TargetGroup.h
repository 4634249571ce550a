// Brings a group of the target from one mix of members to another with as few calls as that takes.
#pragma once

#include <vector>

#include "PI/frontend/target/TargetCalls.h"

namespace pi::fe::proto {

// How often a member stands in the group, and how often it is to.
struct Share {
  uint64_t member = 0;  // the target's handle
  uint32_t before = 0;
  uint32_t after = 0;
};

// Adds come first, so that the group is never empty, and packets always find the members that both
// mixes share.
void doReshare(TargetCalls* calls, uint32_t profileId, uint64_t group,
               const std::vector<Share>& shares);

}  // namespace pi::fe::proto
