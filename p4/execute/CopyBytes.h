// Copies of a few bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace P4 {

// As memcpy(), without a call for 4 to 32 bytes: most headers are of that size.
inline void copyBytes(uint8_t* to, const uint8_t* from, size_t count) {
  // The begin and the end, which overlap where the size is between.
  const auto copyEnds = [&]<typename Part>(Part begin, Part end) {
    std::memcpy(&begin, from, sizeof begin);
    std::memcpy(&end, from + count - sizeof end, sizeof end);
    std::memcpy(to, &begin, sizeof begin);
    std::memcpy(to + count - sizeof end, &end, sizeof end);
  };
  if (count - 16 <= 16) {
    copyEnds((unsigned __int128){}, (unsigned __int128){});
  } else if (count - 8 < 8) {
    copyEnds(uint64_t{}, uint64_t{});
  } else if (count - 4 < 4) {
    copyEnds(uint32_t{}, uint32_t{});
  } else {
    std::memcpy(to, from, count);
  }
}

}  // namespace P4
