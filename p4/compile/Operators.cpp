#include "p4/compile/Operators.h"

namespace P4 {

const RingOperator& ringOperatorOf(Op op) {
  static constexpr RingOperator add{Code::add, Code::addI, Code::wideAdd, true};
  static constexpr RingOperator subtract{Code::subtract, Code::subtractI, Code::wideSubtract,
                                         false};
  static constexpr RingOperator multiply{Code::multiply, Code::multiplyI, Code::wideMultiply, true};
  static constexpr RingOperator bitAnd{Code::bitAnd, Code::bitAndI, Code::wideAnd, true};
  static constexpr RingOperator bitOr{Code::bitOr, Code::bitOrI, Code::wideOr, true};
  static constexpr RingOperator bitXor{Code::bitXor, Code::bitXorI, Code::wideXor, true};
  static constexpr RingOperator bitNot{Code::bitNot, Code::bitNot, Code::wideNot, false};
  switch (op) {
    case Op::add:
      return add;
    case Op::subtract:
      return subtract;
    case Op::multiply:
      return multiply;
    case Op::bitAnd:
      return bitAnd;
    case Op::bitOr:
      return bitOr;
    case Op::bitXor:
      return bitXor;
    default:
      return bitNot;
  }
}

const Comparison& comparisonOf(Op op, bool isSigned) {
  static constexpr Comparison equal{Code::equal, Code::equalI, false};
  static constexpr Comparison notEqual{Code::notEqual, Code::notEqualI, false};
  static constexpr Comparison order[2][4] = {
      {{Code::less, Code::lessI, false},
       {Code::lessEqual, Code::lessEqualI, false},
       {Code::less, Code::greaterI, true},
       {Code::lessEqual, Code::greaterEqualI, true}},
      {{Code::lessSigned, Code::lessSignedI, false},
       {Code::lessEqualSigned, Code::lessEqualSignedI, false},
       {Code::lessSigned, Code::greaterSignedI, true},
       {Code::lessEqualSigned, Code::greaterEqualSignedI, true}}};
  switch (op) {
    case Op::equal:
      return equal;
    case Op::notEqual:
      return notEqual;
    case Op::less:
      return order[isSigned][0];
    case Op::lessEqual:
      return order[isSigned][1];
    case Op::greater:
      return order[isSigned][2];
    default:
      return order[isSigned][3];
  }
}

const Branch& branchOf(Op op) {
  static constexpr Branch equal{Code::jumpIfEqual, Code::jumpIfEqualI, false};
  static constexpr Branch notEqual{Code::jumpIfNotEqual, Code::jumpIfNotEqualI, false};
  static constexpr Branch less{Code::jumpIfLess, Code::jumpIfLessI, false};
  static constexpr Branch lessEqual{Code::jumpIfGreaterEqual, Code::jumpIfLessEqualI, true};
  static constexpr Branch greater{Code::jumpIfLess, Code::jumpIfGreaterI, true};
  static constexpr Branch greaterEqual{Code::jumpIfGreaterEqual, Code::jumpIfGreaterEqualI, false};
  switch (op) {
    case Op::equal:
      return equal;
    case Op::notEqual:
      return notEqual;
    case Op::less:
      return less;
    case Op::lessEqual:
      return lessEqual;
    case Op::greater:
      return greater;
    default:
      return greaterEqual;
  }
}

bool isComparison(Op op) { return op >= Op::equal && op <= Op::greaterEqual; }

Op mirrored(Op op) {
  switch (op) {
    case Op::less:
      return Op::greater;
    case Op::lessEqual:
      return Op::greaterEqual;
    case Op::greater:
      return Op::less;
    case Op::greaterEqual:
      return Op::lessEqual;
    default:
      return op;
  }
}

Op negated(Op op) {
  switch (op) {
    case Op::equal:
      return Op::notEqual;
    case Op::notEqual:
      return Op::equal;
    case Op::less:
      return Op::greaterEqual;
    case Op::lessEqual:
      return Op::greater;
    case Op::greater:
      return Op::lessEqual;
    default:
      return Op::less;
  }
}

}  // namespace P4
