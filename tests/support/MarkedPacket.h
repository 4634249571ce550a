// Packets with a number, and a checker that finds packets that went missing, came twice, came
// out of order or came changed.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <span>
#include <string>

namespace TestSupport {

struct PacketMark {
  uint32_t stream = 0;  // of the sender
  uint32_t port = 0;
  uint64_t sequence = 0;  // counted from 0 in each stream and port
};

// An Ethernet frame of `size` bytes, its type one for local experiments; the rest is a pattern that
// follows from the mark. From 60 bytes on.
std::string markedPacket(const PacketMark& mark, size_t size);
// Nothing when the packet is no whole one of those.
std::optional<PacketMark> markOf(std::span<const uint8_t> packet);
inline std::optional<PacketMark> markOf(const std::string& packet) {
  return markOf({reinterpret_cast<const uint8_t*>(packet.data()), packet.size()});
}

// Thread-safe.
class PacketChecker {
 public:
  void arrived(const PacketMark& mark);
  void foreign();  // something came that is no marked packet
  uint64_t count() const;
  uint64_t count(uint32_t stream, uint32_t port) const;
  uint64_t last(uint32_t stream, uint32_t port) const;  // its sequence number
  // "" when all packets of each stream and port came in order, from the first to the last that
  // came; else the fault. `maybeLost`: gaps are no fault.
  std::string faults(bool maybeLost = false) const;

 private:
  struct Flow {
    uint64_t next = 0;
    uint64_t count = 0;
    uint64_t twice = 0;
    uint64_t late = 0;
    std::set<uint64_t> missing;
  };
  const Flow& flow(uint32_t stream, uint32_t port) const;

  mutable std::mutex mutex_;
  std::map<std::pair<uint32_t, uint32_t>, Flow> flows_;
  uint64_t foreign_ = 0;
};

}  // namespace TestSupport
