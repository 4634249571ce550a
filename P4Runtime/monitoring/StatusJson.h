// The agent's status and the rows of its tables as JSON, for the page.
#pragma once

#include <string>
#include <string_view>

#include "P4Runtime/monitoring/Observed.h"

namespace P4Runtime {

// Call with the activity lock held. Counts are those since the agent began; the page makes rates of
// them by the "seconds" of a steady clock.
std::string statusJson(const Observed& agent);

// Rows whose text has `wanted` in it, whichever letters are capital; {} when there is no such
// table. Looks at a bounded number of rows and returns a few dozen; the answer says how many it has
// looked at. Takes the activity lock for short moments: call without it.
std::string rowsJson(const Observed& agent, std::string_view table, std::string_view wanted);

}  // namespace P4Runtime
