// Code while it is written: instructions, labels and temporary slots.
#pragma once

#include <cstdint>
#include <vector>

#include "p4/compile/Image.h"

namespace P4 {

class CodeBuffer {
 public:
  using Label = uint32_t;

  explicit CodeBuffer(uint32_t firstTemporary)
      : firstTemporary_(firstTemporary), next_(firstTemporary) {}

  Label newLabel();
  void bind(Label label);  // here
  bool bound(Label label) const { return places_[label] != absent; }
  // Jumps name labels in `b`; finish() puts places there.
  void emit(Code code, uint16_t a = 0, uint32_t b = 0, uint64_t c = 0) {
    code_.push_back({code, a, b, c});
  }
  void emitJump(Code code, Label target, uint16_t a = 0, uint64_t c = 0) {
    jumps_.push_back(static_cast<uint32_t>(code_.size()));
    emit(code, a, target, c);
  }
  uint32_t here() const { return static_cast<uint32_t>(code_.size()); }
  uint32_t placeOf(Label label) const { return places_[label]; }

  // Throws ProgramError when there are no more.
  uint16_t temporary(uint32_t words = 1);
  bool isTemporary(uint16_t slot) const { return slot >= firstTemporary_; }
  // Temporaries in use before stay so.
  uint32_t mark() const { return next_; }
  void releaseTo(uint32_t mark) { next_ = mark; }
  uint32_t mostSlots() const { return most_; }

  // Lets the last instruction put its result, a temporary, into another slot; false where the last
  // instruction did not make it.
  bool retarget(uint16_t from, uint16_t to);

  std::vector<Instruction> finish();

 private:
  std::vector<Instruction> code_;
  std::vector<uint32_t> jumps_;
  std::vector<uint32_t> places_;
  uint32_t lastBound_ = 0;
  uint32_t firstTemporary_;
  uint32_t next_;
  uint32_t most_ = 0;
};

}  // namespace P4
