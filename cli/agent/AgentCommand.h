// `korvel agent`: the launcher. Prepares the agent's surroundings, loads libP4Runtime.so and runs
// the reactor until the agent exits.
#pragma once

#include <CLI/App.hpp>

void addAgentCommand(CLI::App& app);
