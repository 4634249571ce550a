// 'korvel why': who wrote an entry, when, and what became of it.
#pragma once

#include <CLI/CLI.hpp>

void addWhyCommand(CLI::App& app);
