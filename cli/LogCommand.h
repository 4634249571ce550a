// `korvel log`: who did what.
#pragma once

#include <CLI/CLI.hpp>

void addLogCommand(CLI::App& app);
