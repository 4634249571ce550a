// Arithmetic on numbers of several words, by GMP.
#pragma once

#include <cstdint>

#include "p4/compile/Image.h"

namespace P4 {

// Carries out one of the instructions `wide...`.
void executeWide(const Instruction& instruction, const Image& image, uint64_t* state);

}  // namespace P4
