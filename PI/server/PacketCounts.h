// Packets between a device and its controllers since the process began. Thread-safe.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>

namespace pi::server {

class PacketCounts {
 public:
  void packetInSent(uint64_t deviceId);
  void packetOutTaken(uint64_t deviceId);
  uint64_t packetsIn(uint64_t deviceId) const;   // handed to a controller's stream
  uint64_t packetsOut(uint64_t deviceId) const;  // taken by the device

 private:
  struct Counts {
    uint64_t in = 0;
    uint64_t out = 0;
  };
  Counts counts(uint64_t deviceId) const;

  mutable std::mutex mutex_;
  std::map<uint64_t, Counts> counts_;
};

PacketCounts& ThePacketCounts();

}  // namespace pi::server
