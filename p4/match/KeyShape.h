// How the words of a table's key lie.
#pragma once

#include <cstdint>
#include <vector>

#include "p4/program/Program.h"

namespace P4 {

// An element takes (bits + 63) / 64 words, low word first; an LPM element stands behind all others,
// high word first, its bits at the top of the words.
struct KeyShape {
  struct Element {
    MatchKind kind = MatchKind::exact;
    uint32_t bits = 0;
    uint32_t word = 0;
    uint32_t words = 0;
  };
  MatchKind kind = MatchKind::exact;  // of the table
  std::vector<Element> elements;      // in the key's order
  uint32_t words = 0;
  uint32_t exactWords = 0;  // of an LPM table: the words before the prefix
  uint32_t prefixBits = 0;  // of an LPM table: the width of the field

  uint32_t parts() const {
    if (kind == MatchKind::range) return 4;
    return kind == MatchKind::ternary ? 2 : 1;
  }
};

KeyShape keyShapeOf(const Table& table);

}  // namespace P4
