// The counts of packets on their way to the controller.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "forwarder/device/CpuDevice.h"

namespace Forwarder {

// The punting thread counts; any thread reads.
struct PuntCounts {
  using Count = std::atomic<uint64_t>;
  Count arrived{0};   // on ports
  Count made{0};      // on request
  Count punted{0};    // received by the controller's device
  Count filtered{0};  // of an EtherType that is not asked for
  Count missed{0};    // arrived faster than they were read
  // Dropped:
  Count tooLong{0};   // for the forwarder, or for the device's MTU
  Count noHeader{0};  // the layout of packet_in is not known, or has no room for the port's id
  Count noDevice{0};  // the controller's device is missing, or down
  Count refused{0};   // by the kernel, for another reason

  void add(const SendCounts& sent);
  std::string text() const;  // lines, each ended
};

}  // namespace Forwarder
