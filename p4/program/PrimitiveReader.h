// Reads calls of primitives, in actions, parser states and deparsers.
#pragma once

#include "p4/program/Names.h"

namespace P4 {

// `arguments`: how many the action has. Throws ProgramError, by name for a primitive that is not
// executed.
PrimitiveCall readPrimitive(const Node& node, uint32_t arguments, const Names& names);

}  // namespace P4
