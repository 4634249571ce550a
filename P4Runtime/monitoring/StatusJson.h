// The agent's status as JSON, for the page.
#pragma once

#include <string>

#include "P4Runtime/monitoring/Observed.h"

namespace P4Runtime {

// Call with the activity lock held. Counts are those since the agent began; the page makes rates of
// them by the "seconds" of a steady clock.
std::string statusJson(const Observed& agent);

}  // namespace P4Runtime
