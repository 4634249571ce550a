// Packets in memory, with room for a header before each.
#pragma once

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

namespace Forwarder {

// A packet within a FrameBatch, which owns its bytes.
struct Frame {
  uint8_t* start = nullptr;
  size_t size = 0;

  void prepend(std::string_view header) {
    start -= header.size();
    size += header.size();
    std::copy(header.begin(), header.end(), start);
  }
};

// Buffers for the packets that are read and written at once.
class FrameBatch {
 public:
  static constexpr size_t count = 64;
  static constexpr size_t headroom = 1024;     // bytes that a header may take
  static constexpr size_t longest = 9 * 1024;  // bytes of a packet; jumbo frames fit

  // The start of a packet's bytes. The `headroom` bytes and a VLAN tag's before it are free, too.
  uint8_t* place(size_t i) { return buffer_.get() + i * slot + headroom + tag; }

 private:
  static constexpr size_t tag = 4;
  static constexpr size_t slot = headroom + tag + longest;
  std::unique_ptr<uint8_t[]> buffer_{new uint8_t[count * slot]};
};

}  // namespace Forwarder
