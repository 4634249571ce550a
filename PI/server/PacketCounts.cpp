#include "PI/server/PacketCounts.h"

namespace pi::server {

void PacketCounts::packetInSent(uint64_t deviceId) {
  const std::lock_guard lock(mutex_);
  ++counts_[deviceId].in;
}

void PacketCounts::packetOutTaken(uint64_t deviceId) {
  const std::lock_guard lock(mutex_);
  ++counts_[deviceId].out;
}

uint64_t PacketCounts::packetsIn(uint64_t deviceId) const { return counts(deviceId).in; }

uint64_t PacketCounts::packetsOut(uint64_t deviceId) const { return counts(deviceId).out; }

PacketCounts::Counts PacketCounts::counts(uint64_t deviceId) const {
  const std::lock_guard lock(mutex_);
  const auto found = counts_.find(deviceId);
  return found == counts_.end() ? Counts{} : found->second;
}

PacketCounts& ThePacketCounts() {
  static PacketCounts* const counts = new PacketCounts;  // streams may outlive static destruction
  return *counts;
}

}  // namespace pi::server
