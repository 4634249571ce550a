// Queries that compile, and how the agent runs them.
#pragma once

#include <string>

#include "pipeline/DeviceConfig.h"
#include "pipeline/TypeCheck.h"

namespace Pipeline {

class Findings;

// Errors: the agent's refusals of the queries when it starts.
void checkQueries(const DeviceConfig& config, const CompiledTypes& types, Findings* findings);
// How the agent keeps the query's output up to date; empty when it cannot.
std::string queryMethodText(const DeviceQuery& query, const DeviceConfig& config,
                            const CompiledTypes& types);

}  // namespace Pipeline
