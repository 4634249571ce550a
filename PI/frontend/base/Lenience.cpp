#include "PI/frontend/base/Lenience.h"

#include <atomic>

namespace pi::fe::proto {

namespace {

std::atomic<bool> allowsZeroWeights{false};
std::atomic<bool> readsBothCounts{false};

}  // namespace

bool zeroWeightsAllowed() { return allowsZeroWeights.load(); }
void zeroWeightsAllowedIs(bool allowed) { allowsZeroWeights.store(allowed); }

bool bothCountsRead() { return readsBothCounts.load(); }
void bothCountsReadIs(bool both) { readsBothCounts.store(both); }

}  // namespace pi::fe::proto
