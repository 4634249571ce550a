// Action profiles of a P4Info that do not work, though all their references lead somewhere.
#pragma once

#include <cstdint>

namespace Pipeline {

class Findings;
class P4InfoLookup;

// The members that one group holds at the most, each counted as often as its weight says.
inline constexpr int64_t maxGroupWeight = 2048;

// Warnings only. The references of the P4Info must be sound.
void checkProfiles(const P4InfoLookup& index, Findings* findings);

}  // namespace Pipeline
