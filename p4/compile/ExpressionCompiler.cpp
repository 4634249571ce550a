#include "p4/compile/ExpressionCompiler.h"

#include <algorithm>

#include "p4/compile/Operators.h"
#include "p4/program/ExpressionReader.h"

namespace P4 {
namespace {

Range hullOf(const Range& one, const Range& other) {
  return {std::min(one.low, other.low), std::max(one.high, other.high)};
}

Value constantValue(const Number& number) {
  Value value{.range = {number, number}};
  value.words = value.range.words();
  return value;
}

uint32_t wordsFor(uint32_t bits) { return std::max(1u, (bits + 63) / 64); }

}  // namespace

void ExpressionCompiler::actionIs(const Action* action) {
  action_ = action;
  argumentSlots_.clear();
  uint32_t slot = image_.argumentSlot;
  for (size_t i = 0; action && i < action->parameters.size(); ++i) {
    argumentSlots_.push_back(static_cast<uint16_t>(slot));
    slot += wordsFor(action->parameters[i].bits);
  }
}

Range ExpressionCompiler::rangeOf(const Expression& expression) {
  if (expression.op == Op::argument && ahead_)
    return Range::unsignedOf(std::max(1u, ahead_->fields[expression.index].bits));
  return ranges_.of(expression, action_);
}

uint16_t ExpressionCompiler::emitted(Code code, uint32_t b, uint64_t c) {
  const uint16_t slot = code_.temporary();
  code_.emit(code, slot, b, c);
  return slot;
}

uint16_t ExpressionCompiler::wide(Code code, uint32_t words, uint16_t first, uint16_t second,
                                  uint32_t more) {
  const bool truth = code == Code::wideEqual || code == Code::wideLess;
  const uint16_t slot = code_.temporary(truth ? 1 : words);
  code_.emit(code, slot, first | uint32_t{second} << 16, words | uint64_t{more} << 16);
  return slot;
}

uint16_t ExpressionCompiler::extended(const Value& value, uint32_t words) {
  if (value.constant()) {
    const uint16_t slot = code_.temporary(words);
    if (words == 1) {
      code_.emit(Code::load, slot, 0, lowWord(value.range.low));
      return slot;
    }
    std::vector<uint64_t> number(words);
    for (uint32_t i = 0; i < words; ++i) number[i] = wordOf(value.range.low, i);
    image_.constants.push_back(std::move(number));
    code_.emit(Code::wideConstant, slot, static_cast<uint32_t>(image_.constants.size() - 1), words);
    return slot;
  }
  if (value.words >= words) return value.slot;  // low words first
  const bool sign = value.isSigned() || value.words > 1;
  const uint16_t slot = code_.temporary(words);
  code_.emit(Code::wideExtend, slot, value.slot | value.words << 16, words | (sign ? 1u << 16 : 0));
  return slot;
}

Value ExpressionCompiler::value(const Expression& expression, uint32_t bits) {
  const Range range = rangeOf(expression);
  const uint32_t all = range.words();
  const uint32_t words = bits == wholeNumber ? all : std::min(all, wordsFor(bits));
  const bool exact = words == all;
  switch (expression.op) {
    case Op::constant:
      return constantValue(expression.number);
    case Op::field:
      return load(layout_.place(expression.index, expression.part));
    case Op::argument:
      return argument(expression.index);
    case Op::lookahead:
      return lookahead(expression.index, expression.part);
    case Op::registerCell:
      return registerCell(expression);
    case Op::stackField:
    case Op::unionStackField:
    case Op::accessField:
      return fieldOf(headers(expression), expression.part, range);
    case Op::boolToData:
      return {.slot = truth(expression.operands[0]), .range = range};
    case Op::lastStackIndex:
    case Op::sizeOfStack:
      return stackIndex(expression);
    case Op::shiftLeft:
      return shiftLeft(expression, words, exact);
    case Op::shiftRight:
      return shiftRight(expression, bits);
    case Op::divide:
    case Op::modulo:
      return quotient(expression);
    case Op::twoCompMod:
    case Op::unsignedSaturate:
    case Op::signedSaturate:
      return cast(expression);
    case Op::choose:
      return choose(expression, words, exact, bits);
    default:
      return ringOperator(expression, words, exact);
  }
}

uint16_t ExpressionCompiler::word(const Expression& expression, uint32_t bits) {
  const Value found = value(expression, bits);
  if (found.constant())
    return emitted(Code::load, 0, lowWord(found.range.low) & lowWord(lowMask(bits)));
  const uint16_t slot = slotOfWord(found);
  if (bits == 64 || (found.exact && found.range.within(Range::unsignedOf(bits)))) return slot;
  return emitted(Code::bitAndI, slot, lowWord(lowMask(bits)));
}

// --- operands

Value ExpressionCompiler::load(const FieldPlace& place) {
  const Range range = place.isSigned ? Range::signedOf(place.bits) : Range::unsignedOf(place.bits);
  Value found{.words = place.words(), .range = range};
  if (place.kind == FieldPlace::Kind::slot) {
    found.slot = static_cast<uint16_t>(place.at);
  } else if (place.kind == FieldPlace::Kind::packed) {
    found.slot = emitted(Code::loadField, place.at, place.lead | uint64_t{place.bits} << 8);
  } else {
    image_.places.push_back(place);
    found.slot = code_.temporary(found.words);
    code_.emit(Code::wideLoad, found.slot, static_cast<uint32_t>(image_.places.size() - 1),
               found.words);
  }
  if (place.isSigned) {
    found.slot = found.words == 1
                     ? emitted(Code::signExtend, found.slot, place.bits)
                     : wide(Code::wideSignExtend, found.words, found.slot, 0, place.bits);
    return found;
  }
  if (found.words == range.words()) return found;
  found.slot =
      wide(Code::wideExtend, range.words(), found.slot, static_cast<uint16_t>(found.words));
  found.words = range.words();  // a word more, for the sign
  return found;
}

Value ExpressionCompiler::argument(uint32_t position) {
  if (ahead_) {
    const Field& field = ahead_->fields[position];
    return field.varbit ? constantValue(0) : lookahead(field.bitOffset, field.bits);
  }
  const Range range = Range::unsignedOf(action_->parameters[position].bits);
  const uint32_t stored = wordsFor(action_->parameters[position].bits);
  Value found{.slot = argumentSlots_[position], .words = stored, .range = range};
  if (stored == range.words()) return found;
  found.slot = wide(Code::wideExtend, range.words(), found.slot, static_cast<uint16_t>(stored));
  found.words = range.words();
  return found;
}

Value ExpressionCompiler::lookahead(uint32_t offset, uint32_t bits) {
  const Range range = Range::unsignedOf(bits);
  Value found{.slot = code_.temporary(range.words()), .words = range.words(), .range = range};
  code_.emit(Code::lookahead, found.slot, offset, bits | uint64_t{found.words} << 32);
  return found;
}

Value ExpressionCompiler::registerCell(const Expression& expression) {
  const uint16_t index = word(expression.operands[0], 32);
  const Range range = rangeOf(expression);
  Value found{.slot = code_.temporary(range.words()), .words = range.words(), .range = range};
  code_.emit(Code::registerLoad, found.slot, index, expression.index | uint64_t{found.words} << 32);
  return found;
}

Value ExpressionCompiler::fieldOf(const std::vector<Candidate>& candidates, uint32_t field,
                                  const Range& range) {
  if (candidates.size() == 1 && candidates[0].condition == noSlot)
    return load(layout_.place(candidates[0].header, field));
  const uint32_t words = range.words();
  const Value found{.slot = code_.temporary(words), .words = words, .range = range};
  const auto set = [&](const Value& value) {
    const uint16_t from = extended(value, words);
    if (words == 1)
      code_.emit(Code::move, found.slot, from);
    else
      code_.emit(Code::wideExtend, found.slot, from | words << 16, words);
  };
  set(constantValue(0));
  forEach(candidates, [&](uint32_t header) { set(load(layout_.place(header, field))); });
  return found;
}

Value ExpressionCompiler::stackIndex(const Expression& expression) {
  const Expression& stack = expression.operands[0];
  const uint16_t next = stack.op == Op::stack ? image_.stacks[stack.index].next
                                              : image_.unionStacks[stack.index].next;
  const Range range = rangeOf(expression);
  if (expression.op == Op::sizeOfStack) return {.slot = next, .range = range};
  return {.slot = emitted(Code::subtractI, next, 1), .range = range};
}

// --- operators

Value ExpressionCompiler::ringOperator(const Expression& expression, uint32_t words, bool exact) {
  const RingOperator& form = ringOperatorOf(expression.op);
  const Expression* left = &expression.operands[0];
  const Expression* right = expression.operands.size() > 1 ? &expression.operands[1] : nullptr;
  if (right && form.commutes && left->op == Op::constant) std::swap(left, right);
  uint32_t bits = words * 64;
  if (expression.op == Op::bitAnd && right->op == Op::constant && right->number >= 0)
    bits = std::min(bits, std::max(1u, bitLength(right->number)));
  Value result{.words = words, .exact = exact, .range = rangeOf(expression)};
  const Value first = value(*left, bits);
  if (words > 1) {
    const bool whole = first.exact || first.words >= words;  // else the bits above are masked off
    const uint16_t one =
        whole ? extended(first, words)
              : wide(Code::wideExtend, words, first.slot, static_cast<uint16_t>(first.words));
    result.slot =
        wide(form.wide, words, one, right ? extended(value(*right, words * 64), words) : 0);
    return result;
  }
  const uint16_t one = slotOfWord(first);
  if (!right)
    result.slot = emitted(form.narrow, one, 0);
  else if (right->op == Op::constant)
    result.slot = emitted(form.immediate, one, lowWord(right->number));
  else
    result.slot = emitted(form.narrow, one, slotOfWord(value(*right, bits)));
  return result;
}

Value ExpressionCompiler::shiftLeft(const Expression& expression, uint32_t words, bool exact) {
  const Expression& count = expression.operands[1];
  Value result{.words = words, .exact = exact, .range = rangeOf(expression)};
  const bool constant = count.op == Op::constant;
  const uint64_t places = lowWord(count.number) & 0xffffffff;
  if (constant && places >= words * 64) return constantValue(0);
  const uint16_t operand = extended(value(expression.operands[0], words * 64), words);
  if (constant)
    result.slot =
        words == 1 ? emitted(Code::shiftLeftI, operand, places)
                   : wide(Code::wideShiftLeftI, words, operand, 0, static_cast<uint32_t>(places));
  else
    result.slot = words == 1 ? emitted(Code::shiftLeft, operand, word(count, 32))
                             : wide(Code::wideShiftLeft, words, operand, word(count, 32));
  return result;
}

Value ExpressionCompiler::shiftRight(const Expression& expression, uint32_t bits) {
  const Expression& count = expression.operands[1];
  const bool constant = count.op == Op::constant;
  const uint64_t places = lowWord(count.number) & 0xffffffff;
  const bool some = constant && bits != wholeNumber && places < maxNumberBits;
  const Value operand =
      value(expression.operands[0], some ? bits + static_cast<uint32_t>(places) : wholeNumber);
  Value result{.exact = operand.exact, .range = rangeOf(expression)};
  const uint16_t slot = slotOf(operand);
  if (operand.words > 1) {
    result.words = operand.exact ? result.range.words() : wordsFor(bits);
    const auto bounded = static_cast<uint32_t>(std::min<uint64_t>(places, operand.words * 64 - 1));
    result.slot = constant ? wide(Code::wideShiftRightI, operand.words, slot, 0, bounded)
                           : wide(Code::wideShiftRight, operand.words, slot, word(count, 32));
    return result;
  }
  const bool sign = operand.exact && operand.isSigned();
  if (constant && !sign && places >= 64) return constantValue(0);
  if (constant)
    result.slot = emitted(sign ? Code::shiftRightSignedI : Code::shiftRightI, slot,
                          std::min<uint64_t>(places, 63));
  else
    result.slot = emitted(sign ? Code::shiftRightSigned : Code::shiftRight, slot, word(count, 32));
  return result;
}

// Zero for a divisor of zero and for negative operands.
Value ExpressionCompiler::quotient(const Expression& expression) {
  const Value left = value(expression.operands[0]);
  const Value right = value(expression.operands[1]);
  const bool divides = expression.op == Op::divide;
  Value result{.range = rangeOf(expression)};
  if (left.range.fitsUnsignedWord() && right.range.fitsUnsignedWord()) {
    result.slot = emitted(divides ? Code::divide : Code::modulo, slotOf(left), slotOf(right));
    return result;
  }
  const uint32_t words = std::max({2u, left.words, right.words});
  result.slot = wide(divides ? Code::wideDivide : Code::wideModulo, words, extended(left, words),
                     extended(right, words));
  result.words = result.range.words();
  return result;
}

Value ExpressionCompiler::cast(const Expression& expression) {
  const uint32_t bits = expression.part;
  if (expression.op != Op::twoCompMod)
    return clamp(value(expression.operands[0]), rangeOf(expression));
  const Value operand = value(expression.operands[0], bits);
  Value result{.words = wordsFor(bits), .range = rangeOf(expression)};
  const uint16_t slot = extended(operand, result.words);
  result.slot = result.words == 1 ? emitted(Code::signExtend, slot, bits)
                                  : wide(Code::wideSignExtend, result.words, slot, 0, bits);
  return result;
}

Value ExpressionCompiler::selected(uint16_t condition, const Value& one, const Value& other,
                                   uint32_t words) {
  Value result{.words = words, .range = hullOf(one.range, other.range)};
  const uint16_t left = extended(one, words);
  const uint16_t right = extended(other, words);
  result.slot = words == 1 ? emitted(Code::select, condition, left | uint64_t{right} << 32)
                           : wide(Code::wideSelect, words, left, right, condition);
  return result;
}

Value ExpressionCompiler::clamp(const Value& value, const Range& limits) {
  Value result = value;
  if (result.range.high > limits.high) {
    const Value high = constantValue(limits.high);
    const uint32_t words = hullOf(result.range, high.range).words();
    result = selected(compareValues(Op::greater, result, high), high, result, words);
  }
  if (value.range.low < limits.low) {
    const Value low = constantValue(limits.low);
    const uint32_t words = hullOf(result.range, low.range).words();
    result = selected(compareValues(Op::less, result, low), low, result, words);
  }
  result.range = {std::clamp(value.range.low, limits.low, limits.high),
                  std::clamp(value.range.high, limits.low, limits.high)};
  result.words = std::min(result.words, result.range.words());
  return result;
}

Value ExpressionCompiler::choose(const Expression& expression, uint32_t words, bool exact,
                                 uint32_t bits) {
  const uint16_t condition = truth(expression.operands[0]);
  const Value one = value(expression.operands[1], bits);
  const Value other = value(expression.operands[2], bits);
  Value result = selected(condition, one, other, words);
  result.exact = exact;
  return result;
}

// --- truth values

uint16_t ExpressionCompiler::truth(const Expression& expression) {
  switch (expression.op) {
    case Op::boolConstant:
      return emitted(Code::load, 0, expression.index);
    case Op::logicalNot:
      return emitted(Code::bitXorI, truth(expression.operands[0]), 1);
    case Op::logicalAnd:
    case Op::logicalOr: {
      const uint16_t left = truth(expression.operands[0]);
      return emitted(expression.op == Op::logicalAnd ? Code::bitAnd : Code::bitOr, left,
                     truth(expression.operands[1]));
    }
    case Op::dataToBool:
      return truthOf(value(expression.operands[0]));
    case Op::choose: {
      const uint16_t condition = truth(expression.operands[0]);
      const uint16_t one = truth(expression.operands[1]);
      return emitted(Code::select, condition, one | uint64_t{truth(expression.operands[2])} << 32);
    }
    case Op::valid:
      return validity(headers(expression.operands[0]), [this](uint32_t header) {
        const HeaderPlace& place = image_.headers[header];
        return place.metadata ? emitted(Code::load, 0, 1) : place.valid;
      });
    case Op::validUnion:
      return validity(unions(expression.operands[0]),
                      [this](uint32_t one) { return anyValid(one); });
    default:
      return compare(expression);
  }
}

uint16_t ExpressionCompiler::truthOf(const Value& number) {
  if (!number.constant() && number.range.within(Range::unsignedOf(1))) return number.slot;
  return compareValues(Op::notEqual, number, constantValue(0));
}

uint16_t ExpressionCompiler::anyValid(uint32_t headerUnion) {
  uint16_t any = emitted(Code::load, 0, 0);
  for (const uint32_t member : image_.unions[headerUnion])
    any = emitted(Code::bitOr, any, image_.headers[member].valid);
  return any;
}

// The truth value of the candidate that is meant; false where none is.
uint16_t ExpressionCompiler::validity(const std::vector<Candidate>& candidates,
                                      const std::function<uint16_t(uint32_t)>& of) {
  if (candidates.size() == 1 && candidates[0].condition == noSlot) return of(candidates[0].header);
  const uint16_t result = emitted(Code::load, 0, 0);
  forEach(candidates, [&](uint32_t one) { code_.emit(Code::move, result, of(one)); });
  return result;
}

uint16_t ExpressionCompiler::compare(const Expression& expression) {
  const Expression& left = expression.operands[0];
  if (left.type == Type::header || left.type == Type::headerUnion)
    return compareObjects(expression);
  if (left.type == Type::boolean) {
    const uint16_t one = truth(left);
    return emitted(expression.op == Op::equal ? Code::equal : Code::notEqual, one,
                   truth(expression.operands[1]));
  }
  const Value one = value(left);
  return compareValues(expression.op, one, value(expression.operands[1]));
}

uint16_t ExpressionCompiler::compareValues(Op op, const Value& left, const Value& right) {
  if (left.constant() && !right.constant()) return compareValues(mirrored(op), right, left);
  const Range hull = hullOf(left.range, right.range);
  const uint32_t words = hull.words();
  if (words == 1) {
    const Comparison& form = comparisonOf(op, !hull.fitsUnsignedWord());
    const uint16_t one = slotOf(left);
    if (right.constant()) return emitted(form.immediate, one, lowWord(right.range.low));
    const uint16_t other = slotOf(right);
    return form.swapped ? emitted(form.narrow, other, one) : emitted(form.narrow, one, other);
  }
  const uint16_t one = extended(left, words);
  const uint16_t other = extended(right, words);
  if (op == Op::equal) return wide(Code::wideEqual, words, one, other);
  if (op == Op::notEqual)
    return emitted(Code::bitXorI, wide(Code::wideEqual, words, one, other), 1);
  const bool swap = op == Op::greater || op == Op::lessEqual;
  const uint16_t less = wide(Code::wideLess, words, swap ? other : one, swap ? one : other);
  return op == Op::less || op == Op::greater ? less : emitted(Code::bitXorI, less, 1);
}

uint16_t ExpressionCompiler::headersEqual(uint32_t one, uint32_t other) {
  const HeaderPlace& place = image_.headers[one];
  if (!place.metadata && !image_.headers[other].metadata)
    return emitted(Code::headersEqual, one, other);
  uint16_t all = emitted(Code::load, 0, 1);
  if (!place.metadata) all = emitted(Code::bitAnd, all, place.valid);
  if (!image_.headers[other].metadata)
    all = emitted(Code::bitAnd, all, image_.headers[other].valid);
  const auto fields = static_cast<uint32_t>(program_.typeOf(one).fields.size());
  for (uint32_t field = 0; field < fields; ++field) {
    const Value left = load(layout_.place(one, field));
    const Value right = load(layout_.place(other, field));
    all = emitted(Code::bitAnd, all, compareValues(Op::equal, left, right));
  }
  return all;
}

uint16_t ExpressionCompiler::compareObjects(const Expression& expression) {
  const Expression& left = expression.operands[0];
  const Expression& right = expression.operands[1];
  const bool ofHeaders = left.type == Type::header;
  const auto ones = ofHeaders ? headers(left) : unions(left);
  const auto others = ofHeaders ? headers(right) : unions(right);
  const uint16_t result = emitted(Code::load, 0, 0);
  forEach(ones, [&](uint32_t one) {
    forEach(others, [&](uint32_t other) {
      if (ofHeaders) {
        code_.emit(Code::move, result, headersEqual(one, other));
        return;
      }
      for (size_t member = 0; member < image_.unions[one].size(); ++member)
        code_.emit(Code::bitOr, result, result,
                   headersEqual(image_.unions[one][member], image_.unions[other][member]));
    });
  });
  return expression.op == Op::equal ? result : emitted(Code::bitXorI, result, 1);
}

bool ExpressionCompiler::branchOnComparison(const Expression& condition, bool sense,
                                            CodeBuffer::Label target) {
  if (!isComparison(condition.op) || condition.operands[0].type != Type::data) return false;
  Op op = sense ? condition.op : negated(condition.op);
  const Expression* left = &condition.operands[0];
  const Expression* right = &condition.operands[1];
  if (left->op == Op::constant) {
    std::swap(left, right);
    op = mirrored(op);
  }
  const Range hull = hullOf(rangeOf(*left), rangeOf(*right));
  const bool equality = op == Op::equal || op == Op::notEqual;
  if (hull.words() != 1 || (!equality && !hull.fitsUnsignedWord()) || left->op == Op::constant)
    return false;
  const Branch& form = branchOf(op);
  const uint16_t one = slotOf(value(*left));
  if (right->op == Op::constant) {
    code_.emitJump(form.immediate, target, one, lowWord(right->number));
    return true;
  }
  const uint16_t other = slotOf(value(*right));
  code_.emitJump(form.narrow, target, form.swapped ? other : one, form.swapped ? one : other);
  return true;
}

void ExpressionCompiler::branch(const Expression& condition, bool sense, CodeBuffer::Label target) {
  if (condition.op == Op::logicalNot) return branch(condition.operands[0], !sense, target);
  if (condition.op == Op::logicalAnd || condition.op == Op::logicalOr) {
    const bool each = (condition.op == Op::logicalOr) == sense;
    if (each) {  // either side alone decides
      branch(condition.operands[0], sense, target);
      return branch(condition.operands[1], sense, target);
    }
    const CodeBuffer::Label on = code_.newLabel();
    branch(condition.operands[0], !sense, on);
    branch(condition.operands[1], sense, target);
    return code_.bind(on);
  }
  if (branchOnComparison(condition, sense, target)) return;
  code_.emitJump(sense ? Code::jumpIfNotZero : Code::jumpIfZero, target, truth(condition));
}

// --- headers

std::vector<Candidate> ExpressionCompiler::headers(const Expression& header) {
  std::vector<Candidate> found;
  switch (header.op) {
    case Op::header:
      return {{header.index}};
    case Op::accessField:
      return headers(header.operands[0]);
    case Op::stackField: {
      const StackPlace& stack = image_.stacks[header.index];
      for (uint32_t i = 0; i < stack.elements.size(); ++i)
        found.push_back({stack.elements[i], emitted(Code::equalI, stack.next, i + 1)});
      return found;
    }
    case Op::unionStackField: {
      const StackPlace& stack = image_.unionStacks[header.index];
      for (uint32_t i = 0; i < stack.elements.size(); ++i)
        found.push_back({image_.unions[stack.elements[i]][header.member],
                         emitted(Code::equalI, stack.next, i + 1)});
      return found;
    }
    case Op::accessMember:
      for (const Candidate& owner : unions(header.operands[0]))
        found.push_back({image_.unions[owner.header][header.member], owner.condition});
      return found;
    case Op::elementOfStack: {
      const StackPlace& stack = image_.stacks[header.operands[0].index];
      const uint16_t index = word(header.operands[1], 32);
      for (uint32_t i = 0; i < stack.elements.size(); ++i)
        found.push_back({stack.elements[i], emitted(Code::equalI, index, i)});
      return found;
    }
    default:
      break;
  }
  const uint16_t condition = truth(header.operands[0]);
  const uint16_t opposite = emitted(Code::bitXorI, condition, 1);
  for (const bool first : {true, false})
    for (Candidate candidate : headers(header.operands[first ? 1 : 2])) {
      const uint16_t chosen = first ? condition : opposite;
      candidate.condition = candidate.condition == noSlot
                                ? chosen
                                : emitted(Code::bitAnd, candidate.condition, chosen);
      found.push_back(candidate);
    }
  return found;
}

std::vector<Candidate> ExpressionCompiler::unions(const Expression& headerUnion) {
  if (headerUnion.op == Op::headerUnion) return {{headerUnion.index}};
  std::vector<Candidate> found;
  if (headerUnion.op == Op::elementOfUnionStack) {
    const StackPlace& stack = image_.unionStacks[headerUnion.operands[0].index];
    const uint16_t index = word(headerUnion.operands[1], 32);
    for (uint32_t i = 0; i < stack.elements.size(); ++i)
      found.push_back({stack.elements[i], emitted(Code::equalI, index, i)});
    return found;
  }
  const uint16_t condition = truth(headerUnion.operands[0]);
  const uint16_t opposite = emitted(Code::bitXorI, condition, 1);
  for (const bool first : {true, false})
    for (Candidate candidate : unions(headerUnion.operands[first ? 1 : 2])) {
      const uint16_t chosen = first ? condition : opposite;
      candidate.condition = candidate.condition == noSlot
                                ? chosen
                                : emitted(Code::bitAnd, candidate.condition, chosen);
      found.push_back(candidate);
    }
  return found;
}

void ExpressionCompiler::forEach(const std::vector<Candidate>& candidates,
                                 const std::function<void(uint32_t)>& emit) {
  for (const Candidate& candidate : candidates) {
    if (candidate.condition == noSlot) {
      emit(candidate.header);
      continue;
    }
    const CodeBuffer::Label over = code_.newLabel();
    code_.emitJump(Code::jumpIfZero, over, candidate.condition);
    emit(candidate.header);
    code_.bind(over);
  }
}

// --- assignments

void ExpressionCompiler::store(const FieldPlace& place, const Expression& source) {
  store(place, value(source, place.saturating ? wholeNumber : place.bits));
}

void ExpressionCompiler::store(const FieldPlace& place, const Value& given) {
  const Range limits = place.isSigned ? Range::signedOf(place.bits) : Range::unsignedOf(place.bits);
  const Value source = place.saturating ? clamp(given, limits) : given;
  if (!place || (place.kind == FieldPlace::Kind::slot && place.at == zeroSlot)) return;
  if (place.wide()) {
    image_.places.push_back(place);
    code_.emit(Code::wideStore, extended(source, place.words()),
               static_cast<uint32_t>(image_.places.size() - 1));
    return;
  }
  if (place.kind == FieldPlace::Kind::packed) {
    code_.emit(Code::storeField, slotOfWord(source), place.at,
               place.lead | uint64_t{place.bits} << 8);
    return;
  }
  const uint64_t mask = lowWord(lowMask(place.bits));
  const auto slot = static_cast<uint16_t>(place.at);
  if (source.constant()) return code_.emit(Code::load, slot, 0, lowWord(source.range.low) & mask);
  const bool fits =
      place.bits == 64 || (source.exact && source.range.within(Range::unsignedOf(place.bits)));
  if (!fits) return code_.emit(Code::bitAndI, slot, source.slot, mask);
  if (source.words == 1 && code_.retarget(source.slot, slot)) return;
  code_.emit(Code::move, slot, source.slot);
}

void ExpressionCompiler::assign(const Expression& destination, const Expression& source) {
  if (destination.op == Op::field)
    return store(layout_.place(destination.index, destination.part), source);
  assign(destination, value(source));
}

void ExpressionCompiler::assign(const Expression& destination, const Value& source) {
  if (destination.op == Op::field)
    return store(layout_.place(destination.index, destination.part), source);
  if (destination.op == Op::registerCell) {
    const uint16_t index = word(destination.operands[0], 32);
    const uint32_t words = wordsFor(program_.registers[destination.index].bits);
    return code_.emit(Code::registerStore, extended(source, words), index, destination.index);
  }
  if (destination.part == validBit) return;
  Value kept = source;
  if (kept.constant()) kept.slot = slotOf(kept);
  forEach(headers(destination),
          [&](uint32_t header) { store(layout_.place(header, destination.part), kept); });
}

}  // namespace P4
