// `korvel config`: faults of a configuration file before the agent reads it, and the keys of one.
#pragma once

#include <CLI/App.hpp>

void addConfigCommand(CLI::App& app);
