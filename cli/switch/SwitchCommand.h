// `korvel switch`: a whole P4 switch, an agent and a forwarding agent under one supervisor.
#pragma once

#include <CLI/CLI.hpp>

void addSwitchCommand(CLI::App& app, const std::string& version);
