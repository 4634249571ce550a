// Turns the inputs of calculations into runs of bits.
#pragma once

#include "p4/compile/Layout.h"

namespace P4 {

CalculationCode compileCalculation(const Calculation& calculation, const Program& program,
                                   const Layout& layout, const Image& image);

}  // namespace P4
