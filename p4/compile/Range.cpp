#include "p4/compile/Range.h"

#include <algorithm>

#include "p4/program/ExpressionReader.h"

namespace P4 {
namespace {

uint32_t widest(const Range& one, const Range& other) {
  return std::max(
      {bitLength(one.low), bitLength(one.high), bitLength(other.low), bitLength(other.high)});
}

Range bounded(Range range) {
  if (bitLength(range.low) > maxNumberBits)
    range.low = range.low < 0 ? Number(-powerOfTwo(maxNumberBits)) : lowMask(maxNumberBits);
  if (bitLength(range.high) > maxNumberBits)
    range.high = range.high < 0 ? Number(-powerOfTwo(maxNumberBits)) : lowMask(maxNumberBits);
  return range;
}

uint32_t shiftOf(const Number& count) {
  if (count < 0) return 0;
  return bitLength(count) > 16 ? maxNumberBits + 1 : static_cast<uint32_t>(lowWord(count));
}

uint32_t boundedShift(const Number& count) { return std::min(shiftOf(count), maxNumberBits + 1); }

Range multiplied(const Range& left, const Range& right) {
  const Number corners[] = {left.low * right.low, left.low * right.high, left.high * right.low,
                            left.high * right.high};
  return {*std::min_element(corners, corners + 4), *std::max_element(corners, corners + 4)};
}

Range shiftedLeft(const Range& value, const Range& count) {
  const uint32_t most = boundedShift(count.high);
  const uint32_t least = count.high > lowMask(32) ? 0 : boundedShift(count.low);
  return {value.low << (value.low < 0 ? most : least),
          value.high << (value.high < 0 ? least : most)};
}

Range shiftedRight(const Range& value, const Range& count) {
  const uint32_t most = boundedShift(count.high);
  const uint32_t least = count.high > lowMask(32) ? 0 : boundedShift(count.low);
  return {value.low >> (value.low < 0 ? least : most),
          value.high >> (value.high < 0 ? most : least)};
}

Range maskedBy(const Range& left, const Range& right) {
  if (left.low >= 0 && right.low >= 0) return {0, std::min(left.high, right.high)};
  if (left.low >= 0) return {0, left.high};
  if (right.low >= 0) return {0, right.high};
  return {-powerOfTwo(widest(left, right)), lowMask(widest(left, right))};
}

Range combined(const Range& left, const Range& right) {
  const uint32_t bits = widest(left, right);
  if (left.low >= 0 && right.low >= 0) return Range::unsignedOf(bits);
  return {-powerOfTwo(bits), lowMask(bits)};
}

}  // namespace

uint32_t Range::words() const {
  if (fitsUnsignedWord() || fitsSignedWord()) return 1;
  return (std::max(bitLength(low), bitLength(high)) + 1 + 63) / 64;
}

const Range& Ranges::of(const Expression& expression, const Action* action) {
  const auto known = known_.find(&expression);
  if (known != known_.end()) return known->second;
  Range range = bounded(found(expression, action));
  return known_.insert_or_assign(&expression, std::move(range)).first->second;
}

Range Ranges::ofField(uint32_t type, uint32_t field) const {
  if (field == validBit) return Range::unsignedOf(1);
  const Field& owner = program_.headerTypes[type].fields[field];
  return owner.isSigned ? Range::signedOf(owner.bits) : Range::unsignedOf(owner.bits);
}

Range Ranges::found(const Expression& expression, const Action* action) {
  switch (expression.op) {
    case Op::constant:
      return {expression.number, expression.number};
    case Op::field:
      return ofField(program_.headers[expression.index].type, expression.part);
    case Op::stackField: {
      Range range = ofField(program_.stacks[expression.index].type, expression.part);
      range.low = std::min(range.low, Number(0));
      return range;
    }
    case Op::unionStackField: {
      const uint32_t owner = program_.unionStacks[expression.index].unions[0];
      const uint32_t header = program_.unions[owner].headers[expression.member];
      return ofField(program_.headers[header].type, expression.part);
    }
    case Op::accessField:
      return ofField(headerTypeOf(program_, expression.operands[0]), expression.part);
    case Op::argument:
      return Range::unsignedOf(action ? action->parameters[expression.index].bits
                                      : maxNumberBits / 2);
    case Op::registerCell:
      return Range::unsignedOf(program_.registers[expression.index].bits);
    case Op::lookahead:
      return Range::unsignedOf(expression.part);
    case Op::boolToData:
      return Range::unsignedOf(1);
    case Op::lastStackIndex:
      return Range::unsignedOf(64);
    case Op::sizeOfStack:
      return Range::unsignedOf(32);
    case Op::twoCompMod:
    case Op::signedSaturate:
      return Range::signedOf(expression.part);
    case Op::unsignedSaturate:
      return Range::unsignedOf(expression.part);
    case Op::bitNot: {
      const Range& operand = of(expression.operands[0], action);
      return {-operand.high - 1, -operand.low - 1};
    }
    case Op::choose: {
      const Range left = of(expression.operands[1], action);
      const Range right = of(expression.operands[2], action);
      return {std::min(left.low, right.low), std::max(left.high, right.high)};
    }
    default:
      break;
  }
  const Range left = of(expression.operands[0], action);
  const Range right = of(expression.operands[1], action);
  return ofOperator(expression, left, right);
}

Range Ranges::ofOperator(const Expression& expression, const Range& left, const Range& right) {
  switch (expression.op) {
    case Op::add:
      return {left.low + right.low, left.high + right.high};
    case Op::subtract:
      return {left.low - right.high, left.high - right.low};
    case Op::multiply:
      return multiplied(left, right);
    case Op::divide:
      return {0, std::max(left.high, Number(0))};
    case Op::modulo:
      return {0, std::max(right.high, Number(0))};
    case Op::shiftLeft:
      return shiftedLeft(left, right);
    case Op::shiftRight:
      return shiftedRight(left, right);
    case Op::bitAnd:
      return maskedBy(left, right);
    case Op::bitOr:
    case Op::bitXor:
      return combined(left, right);
    default:
      return {0, 0};
  }
}

}  // namespace P4
