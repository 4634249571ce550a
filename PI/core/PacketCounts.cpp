#include "PI/core/PacketCounts.h"

#include <map>
#include <shared_mutex>
#include <utility>

namespace pi::core {

namespace {

constexpr size_t kMaxDevices = 1024;

struct AllCounts {
  std::shared_mutex mutex;  // guards which counts there are
  std::map<uint64_t, PacketCounts> ofDevice;
  PacketCounts ofOthers;
};

AllCounts& TheCounts() {
  static AllCounts* const counts = new AllCounts;  // threads may outlive static destruction
  return *counts;
}

}  // namespace

void PacketCounts::malformed(std::string reason) {
  inMalformed.add();
  const std::lock_guard lock(mutex_);
  lastMalformed_ = std::move(reason);
}

std::string PacketCounts::lastMalformed() const {
  const std::lock_guard lock(mutex_);
  return lastMalformed_;
}

PacketCounts& packetCountsOf(uint64_t deviceId) {
  AllCounts& counts = TheCounts();
  {
    const std::shared_lock lock(counts.mutex);
    const auto found = counts.ofDevice.find(deviceId);
    if (found != counts.ofDevice.end()) return found->second;
  }
  const std::unique_lock lock(counts.mutex);
  if (counts.ofDevice.size() >= kMaxDevices) return counts.ofOthers;
  return counts.ofDevice[deviceId];
}

}  // namespace pi::core
