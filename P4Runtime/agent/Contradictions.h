// Faults of a configuration that no setting has by itself.
#pragma once

#include <string>
#include <vector>

#include "platform/orrery/Database.h"

namespace P4Runtime {

// Of the configuration in the database of an agent that does not run: a line each, with the path.
// Looks at no file, user or address of the machine. Call with the activity lock held.
std::vector<std::string> contradictions(const Orrery::Database& database);

}  // namespace P4Runtime

// For a command that has loaded the agent's library; adds to `lines`.
extern "C" void korvelAgentContradictions(const Orrery::Database& database,
                                          std::vector<std::string>& lines);
