// The agent's metrics, for scraping.
#pragma once

#include <string>

#include "P4Runtime/monitoring/Exposition.h"
#include "P4Runtime/monitoring/Observed.h"

namespace P4Runtime {

// Call with the activity lock held; reads attributes and counts, and walks through no table.
std::string metricsText(const Observed& agent, Exposition::Form form);

}  // namespace P4Runtime
