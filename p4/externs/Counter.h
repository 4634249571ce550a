// Counters of packets and bytes.
#pragma once

#include <atomic>
#include <cstdint>

namespace P4 {

struct Counts {
  uint64_t packets = 0;
  uint64_t bytes = 0;
  bool operator==(const Counts&) const = default;
};

// The packet thread adds; another thread may read and set at the same time. Setting does not touch
// what the packet thread adds to, so no packet is lost from the count.
class Counter {
 public:
  void add(uint64_t bytes) {
    packets_.store(packets_.load(relaxed) + 1, relaxed);
    bytes_.store(bytes_.load(relaxed) + bytes, relaxed);
  }
  Counts counts() const {
    return {packets_.load(relaxed) + packetBase_, bytes_.load(relaxed) + byteBase_};
  }
  void countsIs(const Counts& counts) {
    packetBase_ = counts.packets - packets_.load(relaxed);
    byteBase_ = counts.bytes - bytes_.load(relaxed);
  }

 private:
  static constexpr auto relaxed = std::memory_order_relaxed;
  std::atomic<uint64_t> packets_ = 0;
  std::atomic<uint64_t> bytes_ = 0;
  uint64_t packetBase_ = 0;  // of the controlling thread alone
  uint64_t byteBase_ = 0;
};

}  // namespace P4
