// `korvel config check`: what the agent would say of a configuration file, before it has to.
#pragma once

#include <CLI/App.hpp>

void addConfigCommand(CLI::App& app);
