// Packets between devices and their controllers since the process began, and the drops among
// them by reason. Thread-safe; counting costs an atomic addition.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

namespace pi::core {

// Of one device; PI/proto/pi_server.h gives the meaning of each.
struct PacketCounts {
  struct Count {
    void add() { value.fetch_add(1, std::memory_order_relaxed); }
    uint64_t get() const { return value.load(std::memory_order_relaxed); }
    std::atomic<uint64_t> value{0};
  };

  Count in;
  Count inNoPrimary;
  Count inSlow;
  Count inMalformed;
  Count out;
  Count outNotPrimary;
  Count outBadMetadata;
  Count outRefused;

  void malformed(std::string reason);  // counts a packet-in, and keeps why until the next one
  std::string lastMalformed() const;   // empty when none was

 private:
  mutable std::mutex mutex_;  // guards lastMalformed_
  std::string lastMalformed_;
};

// Stays for good. Devices beyond the first 1024 that are asked for have one in common, so that
// nobody can fill the memory with made-up ids.
PacketCounts& packetCountsOf(uint64_t deviceId);

}  // namespace pi::core
