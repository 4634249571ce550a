// Questions of the agent to forwarding agents, about matters that only the forwarding plane knows.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace Lattice {

struct Question {
  enum class Kind : uint8_t {
    pipeline = 1,   // does the forwarding plane execute the program of this push?
    registerCells,  // the values of a register's cells
    counts,         // are the counts of now published?
    lastHits        // how long ago did packets meet these entries?
  };
  Kind kind = Kind::pipeline;
  uint64_t push = 0;        // its number
  uint32_t registerId = 0;  // in the P4Info
  uint64_t firstCell = 0;
  uint32_t cellCount = 0;
  static constexpr size_t mostEntries = 1024;
  uint32_t tableId = 0;                // in the P4Info
  std::vector<uint64_t> entryHandles;  // at most mostEntries
};

// For an entry that the forwarding agent does not know.
inline constexpr uint64_t unknownLastHit = UINT64_MAX;

// With error code 0 the bytes answer the question: those of the cells, one behind the other, each
// big-endian in as many bytes as its width takes; of last hits, a u64 an entry in the order of the
// question, little-endian, in nanoseconds; of others none. With another code, of
// P4Runtime/companion/ErrorCode.h, they are a text for people.
struct Answer {
  uint16_t errorCode = 0;
  std::string bytes;
};

// Called once: with the first answer that is an error, or with the last one. Null: all that were
// asked have gone.
using AnswerHandler = std::function<void(const Answer* answer)>;

}  // namespace Lattice
