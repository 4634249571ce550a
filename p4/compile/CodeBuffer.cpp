#include "p4/compile/CodeBuffer.h"

#include <algorithm>

#include "p4/program/ProgramError.h"

namespace P4 {
namespace {

constexpr uint32_t maxSlots = 0xff00;
constexpr uint32_t maxInstructions = 1u << 24;

// Whether `a` is where a one-word result goes, and nothing else.
bool makesWord(Code code) {
  return (code >= Code::load && code <= Code::loadField) || code == Code::lookahead ||
         code == Code::registerLoad || code == Code::calculate || code == Code::hash ||
         code == Code::random || code == Code::meter || code == Code::headersEqual;
}

}  // namespace

CodeBuffer::Label CodeBuffer::newLabel() {
  places_.push_back(absent);
  return static_cast<Label>(places_.size() - 1);
}

void CodeBuffer::bind(Label label) {
  places_[label] = lastBound_ = here();
  if (here() > maxInstructions) throw ProgramError("actions", "the program is too large");
}

uint16_t CodeBuffer::temporary(uint32_t words) {
  const uint32_t slot = next_;
  next_ += words;
  if (next_ > maxSlots) throw ProgramError("actions", "an expression of the program is too large");
  most_ = std::max(most_, next_);
  return static_cast<uint16_t>(slot);
}

bool CodeBuffer::retarget(uint16_t from, uint16_t to) {
  if (code_.empty() || lastBound_ == here() || !isTemporary(from)) return false;
  Instruction& last = code_.back();
  if (last.a != from || !makesWord(last.code)) return false;
  last.a = to;
  return true;
}

std::vector<Instruction> CodeBuffer::finish() {
  for (const uint32_t jump : jumps_) code_[jump].b = places_[code_[jump].b];
  return std::move(code_);
}

}  // namespace P4
