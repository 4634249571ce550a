// The instructions into which a program is compiled.
#pragma once

#include <cstdint>

namespace P4 {

// Operands are slots of the packet's state unless told otherwise. Numbers are 64-bit words; truth
// values are 0 or 1. A form that ends in `I` has its right operand in `c`. Jumps go to `b`.
enum class Code : uint16_t {
  load,  // a = number c
  move,  // a = [b]
  // a = [b] op [c], or [b] op c
  add,
  addI,
  subtract,
  subtractI,
  multiply,
  multiplyI,
  bitAnd,
  bitAndI,
  bitOr,
  bitOrI,
  bitXor,
  bitXorI,
  shiftLeft,
  shiftLeftI,
  shiftRight,
  shiftRightI,
  shiftRightSigned,
  shiftRightSignedI,
  equal,
  equalI,
  notEqual,
  notEqualI,
  less,
  lessI,
  lessEqual,
  lessEqualI,
  greaterI,
  greaterEqualI,
  lessSigned,
  lessSignedI,
  lessEqualSigned,
  lessEqualSignedI,
  greaterSignedI,
  greaterEqualSignedI,
  divide,
  modulo,      // 0 when [c] is 0
  bitNot,      // a = ~[b]
  signExtend,  // a = low c bits of [b], with their sign
  select,      // a = [b] ? [low half of c] : [high half of c]

  // fields in headers: b is a byte of the state, c is lead | bits << 8
  loadField,   // a = field
  storeField,  // field = [a]

  // numbers of several words: b is slot | slot << 16, c is words | more << 16
  wideLoad,      // a = place b, c words
  wideStore,     // place b = [a]
  wideConstant,  // a = constant b
  wideExtend,    // a of c words = [b] of `high half of b` words; more: 1 with its sign
  wideAdd,
  wideSubtract,
  wideMultiply,
  wideAnd,
  wideOr,
  wideXor,
  wideNot,
  wideDivide,
  wideModulo,
  wideShiftLeft,
  wideShiftRight,  // by [second slot]
  wideShiftLeftI,
  wideShiftRightI,  // by `more`
  wideEqual,
  wideLess,        // a is one word; with sign
  wideSelect,      // a = [more] ? first : second
  wideSignExtend,  // a = low `more` bits of the first, with their sign

  // control
  jump,        // always
  jumpIfZero,  // [a] is 0
  jumpIfNotZero,
  jumpIfEqual,
  jumpIfEqualI,
  jumpIfNotEqual,
  jumpIfNotEqualI,  // [a] with [c], or with c
  jumpIfLess,
  jumpIfLessI,
  jumpIfGreaterEqual,
  jumpIfGreaterEqualI,  // unsigned
  jumpIfGreaterI,
  jumpIfLessEqualI,
  step,   // one of the bounded number of steps
  table,  // table b
  call,   // action c, then goes on at b
  leave,  // an action ends
  end,    // the run ends

  // headers
  addHeader,     // b; a: 1 to leave fields and length alone
  removeHeader,  // b
  copyHeader,    // b from c
  headersEqual,  // a = header b equals header c, both valid
  push,
  pop,  // stack b by [a]; c: 1 for a stack of unions

  // parser
  state,              // enters state b
  extract,            // header b
  extractStack,       // stack b
  extractUnionStack,  // union stack b, member c
  extractVarbit,      // [a] bits; object b, c is target | member << 8
  advance,            // [b] bits
  lookahead,          // a = bits from offset b on; c is bits | words << 32
  raise,              // error [b]
  selectState,        // on [a] by selector b
  selectWide,         // on words from a on by selector b
  inValueSet,         // jumps to b when the words from a on are in the set of use c, under its mask

  // externs and requests
  count,          // cell [b] of array c
  meter,          // a = colour of cell [b] of array c
  registerLoad,   // a = cell [b] of array c, 0 beyond its end
  registerStore,  // cell [b] of array c = [a]
  calculate,      // a = calculation b
  hash,           // a = [b] + calculation (low half of c) mod [high half of c]
  random,         // a = random number from [b] to [c]
  checksumError,
  requestDigest,       // list [b]
  requestClone,        // session [b], list [c]
  requestResubmit,     // list [b]
  requestRecirculate,  // list [b]
  truncate,            // to [b] bytes
  exit,
  log,         // message b
  assertTrue,  // [b]
};

struct Instruction {
  Code code = Code::end;
  uint16_t a = 0;
  uint32_t b = 0;
  uint64_t c = 0;
};
static_assert(sizeof(Instruction) == 16);

}  // namespace P4
