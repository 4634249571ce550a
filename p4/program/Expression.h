// Expressions of a program as trees, with all names resolved to positions.
#pragma once

#include <cstdint>
#include <vector>

#include "p4/program/Number.h"

namespace P4 {

// The kind of a value. Objects are no numbers: nothing converts between kinds.
enum class Type : uint8_t { data, boolean, header, stack, headerUnion, unionStack };

enum class Op : uint8_t {
  // operands
  constant,         // number
  boolConstant,     // index: 0 or 1
  field,            // index: header, part: field or validBit
  stackField,       // index: stack, part: field; of the last filled element
  unionStackField,  // index: union stack, member, part: field
  argument,         // index: of the action's parameter; in a header's length: of its field
  registerCell,     // index: array; operand: position
  lookahead,        // index: bit offset, part: bits
  header,           // index
  stack,            // index
  headerUnion,      // index
  unionStack,       // index
  // operators on data
  add,
  subtract,
  multiply,
  divide,
  modulo,
  shiftLeft,
  shiftRight,
  bitAnd,
  bitOr,
  bitXor,
  bitNot,
  twoCompMod,
  unsignedSaturate,
  signedSaturate,
  // comparisons
  equal,
  notEqual,
  less,
  lessEqual,
  greater,
  greaterEqual,
  // operators on truth values
  logicalAnd,
  logicalOr,
  logicalNot,
  dataToBool,
  boolToData,
  choose,  // operands: condition, left, right
  // operators on objects
  valid,
  validUnion,
  elementOfStack,       // operands: stack, index
  elementOfUnionStack,  // operands: union stack, index
  accessField,          // part: field; operand: header
  accessMember,         // member; operand: union
  lastStackIndex,
  sizeOfStack,
};

inline constexpr uint32_t validBit = 0xffffffff;  // the field `$valid$`

struct Expression {
  Op op = Op::constant;
  Type type = Type::data;
  uint32_t index = 0;
  uint32_t part = 0;
  uint32_t member = 0;
  Number number;
  std::vector<Expression> operands;

  static Expression constantOf(Number value) {
    Expression made;
    made.number = std::move(value);
    return made;
  }
  static Expression fieldOf(uint32_t header, uint32_t field) {
    Expression made;
    made.op = Op::field;
    made.index = header;
    made.part = field;
    return made;
  }
};

}  // namespace P4
