#include "forwarder/packets/PortCounts.h"

namespace Forwarder {

const char* packetDropName(PacketDrop drop) {
  static constexpr const char* names[packetDrops] = {
      "no-program", "missed", "unreadable", "device-down", "too-long", "device-full", "refused"};
  return names[static_cast<size_t>(drop)];
}

PortCounts LivePortCounts::counts() const {
  const auto now = [](const Count& count) { return count.load(std::memory_order_relaxed); };
  PortCounts counts{.received = now(received_),
                    .receivedBytes = now(receivedBytes_),
                    .sent = now(sent_),
                    .sentBytes = now(sentBytes_)};
  for (size_t i = 0; i < packetDrops; ++i) counts.dropped[i] = now(dropped_[i]);
  return counts;
}

}  // namespace Forwarder
