// The limits of the P4Runtime server, as the system configuration has them.
#pragma once

#include <vector>

#include "P4Runtime/companion/P4RtSystemConfig.h"
#include "platform/vela/Entity.h"

namespace P4Runtime {

// Gives the server its limits, at once and whenever one changes, as long as the observations live.
// Call with the activity lock held; `config` outlives them.
std::vector<Vela::Observation> followServerLimits(const P4RuntimeConfig::P4RtSystemConfig& config);

}  // namespace P4Runtime
