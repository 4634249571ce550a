// From bytes as controllers write them to words as packets meet them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "p4/match/Entry.h"
#include "p4/match/KeyShape.h"
#include "p4/program/Program.h"
#include "p4/tables/Spares.h"

namespace P4 {

// Big-endian bytes of any count, as a number of `bits` bits in (bits + 63) / 64 words, low word
// first. False when the number is wider.
bool wordsOfBytes(std::string_view bytes, uint32_t bits, uint64_t* words);
// (bits + 7) / 8 bytes.
std::string bytesOfWords(const uint64_t* words, uint32_t bits);

// An action and its arguments, by position in the program. An argument's bytes may be fewer or more
// than its width takes, as long as the number fits.
struct ActionSpec {
  uint32_t action = 0;
  std::vector<std::string> arguments;
};

// Throws Refusal. Spares may be null.
ActionData::Ptr encodeAction(const Program& program, const ActionSpec& spec,
                             Spares<ActionData>* spares = nullptr);
ActionData::Ptr encodeAction(const Program& program, const ActionCall& call);

// Fills the key of an entry. An element without value matches everything (exact ones must have
// one). Throws Refusal.
Entry::Ptr encodeKey(const Table& table, const KeyShape& shape,
                     const std::vector<MatchElement>& match, Spares<Entry>* spares = nullptr);
// The size of the table's entries among spares.
inline uint32_t spareSize(const KeyShape& shape) { return shape.words * shape.parts(); }

}  // namespace P4
