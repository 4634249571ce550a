// The words about an entry that a forwarding agent failed to program.
#pragma once

#include <string>

#include "platform/lattice/Database.h"

namespace P4Runtime {

// ": error 13 no room (reported by main)"; stands behind the entry's name.
std::string failureText(const Lattice::Report& report);
// On standard error, where a flood of them stays bounded.
void sayNotProgrammed(const std::string& text);

}  // namespace P4Runtime
