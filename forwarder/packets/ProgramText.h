// A program in the words of its author, for people who want to know what a switch runs.
#pragma once

#include <string>
#include <string_view>

#include "p4/Engine.h"

namespace Forwarder {

// Headers, parser states, tables with their keys, sizes and actions, and all arrays, a line each.
// Call it in the thread that changes the engine's tables.
std::string programText(P4::Engine& engine);
// Of one table. Throws CommandError when the program has none of that name.
std::string programTableText(P4::Engine& engine, std::string_view table);

}  // namespace Forwarder
