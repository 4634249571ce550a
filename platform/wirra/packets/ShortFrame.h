// Frames shorter than an Ethernet header: no kernel device takes them, yet programs and controllers
// exchange them over the CPU device. There they have a mark in front.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>

namespace Wirra {

// Addresses of zeros, and a type that no protocol has.
inline constexpr std::array<uint8_t, 14> shortFrameMark{0, 0, 0, 0, 0, 0,    0,
                                                        0, 0, 0, 0, 0, 0xff, 0xff};

inline bool hasShortFrameMark(std::span<const uint8_t> frame) {
  return frame.size() >= shortFrameMark.size() &&
         std::equal(shortFrameMark.begin(), shortFrameMark.end(), frame.begin());
}

// A long frame that begins like a mark gets one, too, so that the other end can tell.
inline bool needsShortFrameMark(std::span<const uint8_t> frame) {
  return frame.size() < shortFrameMark.size() || hasShortFrameMark(frame);
}

}  // namespace Wirra
