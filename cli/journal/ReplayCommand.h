// 'korvel replay': writes a journal to another switch.
#pragma once

#include <CLI/CLI.hpp>

void addReplayCommand(CLI::App& app);
