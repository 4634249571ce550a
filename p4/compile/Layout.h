// Gives every field, header and stack of a program its place in a packet's state.
#pragma once

#include "p4/compile/Image.h"

namespace P4 {

class Layout {
 public:
  // Fills the image's headers, stacks, unions and system fields. Throws ProgramError when the state
  // is too large.
  Layout(const Program& program, Image& image);

  FieldPlace place(uint32_t header, uint32_t field) const;  // `field` may be validBit
  uint16_t firstFreeSlot() const { return firstFree_; }

 private:
  void placeSlots();
  void placeHeaderBytes();
  void findSystemFields();
  uint16_t take(uint32_t words);
  bool isShownWritten(uint32_t header) const;

  const Program& program_;
  Image& image_;
  uint32_t used_ = 2;
  uint16_t firstFree_ = 0;
  std::vector<std::vector<FieldPlace>> places_;  // by header and field
  std::vector<bool> shownWritten_;
};

}  // namespace P4
