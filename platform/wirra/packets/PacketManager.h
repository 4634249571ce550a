// Gives out packets up to a limit of memory.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "platform/wirra/packets/Packet.h"

namespace Wirra {

// Thread-safe. Must outlive its packets.
class PacketManager {
 public:
  // Null when the packets that live would then hold more than `byteLimit` bytes, or there is no
  // memory. The head buffer has `size` bytes, not initialised.
  Packet::Ptr packet(size_t size);
  size_t bytes() const { return bytes_; }
  uint64_t refused() const { return refused_; }  // since the process began
  size_t byteLimit() const { return byteLimit_; }
  void byteLimitIs(size_t bytes) { byteLimit_ = bytes; }

 private:
  std::atomic<size_t> bytes_{0};
  std::atomic<size_t> byteLimit_{256 << 20};
  std::atomic<uint64_t> refused_{0};
};

PacketManager& ThePacketManager();

}  // namespace Wirra
