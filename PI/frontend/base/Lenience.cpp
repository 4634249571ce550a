#include "PI/frontend/base/Lenience.h"

#include <atomic>

namespace pi::fe::proto {

namespace {

std::atomic<bool> allowsZeroWeights{false};

}  // namespace

bool zeroWeightsAllowed() { return allowsZeroWeights.load(); }
void zeroWeightsAllowedIs(bool allowed) { allowsZeroWeights.store(allowed); }

}  // namespace pi::fe::proto
