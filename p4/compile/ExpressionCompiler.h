// Turns expressions into code.
#pragma once

#include <functional>
#include <optional>
#include <vector>

#include "p4/compile/CodeBuffer.h"
#include "p4/compile/Layout.h"
#include "p4/compile/Range.h"

namespace P4 {

// A number in slots, or a constant (noSlot) of which the range tells the number. Exact: its words
// are the number (one word: unsigned unless the range has negative numbers; several: two's
// complement). Else they are only its lowest bits.
struct Value {
  uint16_t slot = noSlot;
  uint32_t words = 1;
  bool exact = true;
  Range range;

  bool constant() const { return slot == noSlot; }
  bool isSigned() const { return range.low < 0; }
};

// A header of which only the run knows whether it is meant.
struct Candidate {
  uint32_t header = 0;
  uint16_t condition = noSlot;  // it is when this slot is not 0; noSlot: always
};

// Ranges decide how wide a number is computed: an operator whose result fits a word, or of which
// only the low bits are wanted, takes words; all else takes several.
class ExpressionCompiler {
 public:
  ExpressionCompiler(const Program& program, const Layout& layout, Image& image, CodeBuffer& code)
      : program_(program), layout_(layout), image_(image), code_(code), ranges_(program) {}

  // Arguments are those of this action from now on; null: there are none.
  void actionIs(const Action* action);
  // Arguments are fields that lie ahead in the packet, for the length of a header of this type.
  void headerAheadIs(const HeaderType* type) { ahead_ = type; }

  // `bits`: how many of the lowest are wanted; wholeNumber for all.
  static constexpr uint32_t wholeNumber = 0xffffffff;
  Value value(const Expression& expression, uint32_t bits = wholeNumber);
  uint16_t word(const Expression& expression, uint32_t bits);  // exactly these bits; at most 64
  uint16_t truth(const Expression& expression);
  uint16_t truthOf(const Value& number);  // whether it is not 0
  // Goes to the label when the condition is `sense`, else on.
  void branch(const Expression& condition, bool sense, CodeBuffer::Label target);

  // Puts a value into a place, with its truncation or saturation.
  void store(const FieldPlace& place, const Expression& source);
  void store(const FieldPlace& place, const Value& source);
  // Assigns to a destination of any kind.
  void assign(const Expression& destination, const Expression& source);
  void assign(const Expression& destination, const Value& source);
  Value load(const FieldPlace& place);
  uint16_t extended(const Value& value, uint32_t words);  // in a slot, of so many words or more
  uint16_t slotOfWord(const Value& value) { return extended(value, 1); }  // its lowest word

  std::vector<Candidate> headers(const Expression& header);
  std::vector<Candidate> unions(const Expression& headerUnion);
  // Runs `emit` for each candidate, within a test where one is wanted.
  void forEach(const std::vector<Candidate>& candidates, const std::function<void(uint32_t)>& emit);

 private:
  Value argument(uint32_t position);
  Value lookahead(uint32_t offset, uint32_t bits);
  Value registerCell(const Expression& expression);
  Value fieldOf(const std::vector<Candidate>& candidates, uint32_t field, const Range& range);
  Value ringOperator(const Expression& expression, uint32_t words, bool exact);
  Value shiftLeft(const Expression& expression, uint32_t words, bool exact);
  Value shiftRight(const Expression& expression, uint32_t bits);
  Value quotient(const Expression& expression);
  Value cast(const Expression& expression);
  Value clamp(const Value& value, const Range& limits);
  Value selected(uint16_t condition, const Value& one, const Value& other, uint32_t words);
  Value choose(const Expression& expression, uint32_t words, bool exact, uint32_t bits);
  Value stackIndex(const Expression& expression);

  uint16_t compare(const Expression& expression);
  uint16_t compareValues(Op op, const Value& left, const Value& right);
  uint16_t compareObjects(const Expression& expression);
  uint16_t headersEqual(uint32_t one, uint32_t other);
  uint16_t anyValid(uint32_t headerUnion);
  uint16_t validity(const std::vector<Candidate>& candidates,
                    const std::function<uint16_t(uint32_t)>& of);
  bool branchOnComparison(const Expression& condition, bool sense, CodeBuffer::Label target);

  uint16_t slotOf(const Value& value) { return extended(value, value.words); }
  uint16_t emitted(Code code, uint32_t b, uint64_t c);  // into a new temporary
  uint16_t wide(Code code, uint32_t words, uint16_t first, uint16_t second = 0, uint32_t more = 0);
  Range rangeOf(const Expression& expression);

  const Program& program_;
  const Layout& layout_;
  Image& image_;
  CodeBuffer& code_;
  Ranges ranges_;
  const Action* action_ = nullptr;
  std::vector<uint16_t> argumentSlots_;
  const HeaderType* ahead_ = nullptr;
};

}  // namespace P4
