// The limits of the P4Runtime server, as the system configuration has them.
#pragma once

#include <vector>

#include "P4Runtime/companion/P4RtSystemConfig.h"
#include "platform/vela/Entity.h"

namespace P4Runtime {

// Gives the server its device, its limits and its lenience, these at once and whenever one changes,
// as long as the observations live. Call with the activity lock held, before the server starts;
// `config` outlives them. Throws Vela::Exception, in words for operators, for a limit that cannot
// be.
std::vector<Vela::Observation> followServerLimits(const P4RuntimeConfig::P4RtSystemConfig& config);

}  // namespace P4Runtime
