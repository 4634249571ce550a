// What became of the packets of a port.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace Forwarder {

enum class PacketDrop : uint8_t {
  noProgram,   // arrived while there was no program
  missed,      // arrived faster than they were read
  unreadable,  // arrived, but could not be cut into segments as their sender wanted
  deviceDown,  // to be sent, but the device was down or gone
  tooLong,     // to be sent, but longer than the device's MTU allows
  deviceFull,  // to be sent, but too many waited for the device already
  refused,     // to be sent, but the kernel refused for another reason
};
inline constexpr size_t packetDrops = 7;
const char* packetDropName(PacketDrop drop);  // "no-program"

// Frames, and bytes of frames without frame check sequence, since the port came.
struct PortCounts {
  uint64_t received = 0, receivedBytes = 0;
  uint64_t sent = 0, sentBytes = 0;
  std::array<uint64_t, packetDrops> dropped{};

  uint64_t of(PacketDrop drop) const { return dropped[static_cast<size_t>(drop)]; }
};

// Counted by the packet thread, read by any.
class LivePortCounts {
 public:
  void addReceived(uint64_t frames, uint64_t bytes) {
    add(received_, frames);
    add(receivedBytes_, bytes);
  }
  void addSent(uint64_t frames, uint64_t bytes) {
    add(sent_, frames);
    add(sentBytes_, bytes);
  }
  void addDropped(PacketDrop drop, uint64_t frames = 1) {
    add(dropped_[static_cast<size_t>(drop)], frames);
  }
  PortCounts counts() const;

 private:
  using Count = std::atomic<uint64_t>;
  // One thread counts, so that no locked instruction is needed.
  static void add(Count& count, uint64_t more) {
    count.store(count.load(std::memory_order_relaxed) + more, std::memory_order_relaxed);
  }

  Count received_{0}, receivedBytes_{0}, sent_{0}, sentBytes_{0};
  std::array<Count, packetDrops> dropped_{};
};

}  // namespace Forwarder
