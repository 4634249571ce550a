// The cost of action profiles: members, groups, one-shot sets, and entries that name groups, each
// beside entries with an action of their own.
#pragma once

#include <vector>

#include "bench/p4runtime/Measure.h"

namespace Bench {

constexpr uint64_t groupCount = 1000;
constexpr uint64_t groupSize = 8;
constexpr uint64_t setSize = 4;

struct ProfileResults {
  std::vector<Line> lines;  // "direct" first of each batch size, for comparison
  TableFigures figures;     // of the entries that name groups; table 0: not measured
};

// On switches of their own, empty at first. Throws std::runtime_error when a request fails.
ProfileResults measuredProfiles(const Plan& plan);

}  // namespace Bench
