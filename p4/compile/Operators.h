// Which instructions do the work of an operator.
#pragma once

#include "p4/compile/Instruction.h"
#include "p4/program/Expression.h"

namespace P4 {

// An operator whose low bits depend on its operands' low bits alone.
struct RingOperator {
  Code narrow;
  Code immediate;
  Code wide;
  bool commutes;
};
const RingOperator& ringOperatorOf(Op op);

struct Comparison {
  Code narrow;
  Code immediate;
  bool swapped;  // of `narrow`: its operands
};
const Comparison& comparisonOf(Op op, bool isSigned);

struct Branch {
  Code narrow;
  Code immediate;
  bool swapped;
};
const Branch& branchOf(Op op);  // unsigned

bool isComparison(Op op);
Op mirrored(Op op);  // with its operands swapped
Op negated(Op op);

}  // namespace P4
