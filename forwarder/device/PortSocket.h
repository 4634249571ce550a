// Reads the packets that arrive on one kernel device.
#pragma once

#include <cstdint>
#include <string>

#include "forwarder/device/Frames.h"
#include "platform/vela/Descriptors.h"

namespace Forwarder {

// Bound to the device that had the name when the socket was made. Works without a reactor, unlike
// the packet access of platform/wirra, and leaves room for a header before each packet.
// Threads: one at a time.
class PortSocket {
 public:
  // Throws std::system_error: no such device, no permission.
  explicit PortSocket(const std::string& device);

  int descriptor() const { return descriptor_.get(); }
  unsigned ifIndex() const { return ifIndex_; }
  // Fills `frames` with the packets that have arrived, without waiting, and returns their number.
  // Packets too long for a FrameBatch are left out and added to `tooLong`.
  size_t receive(FrameBatch& batch, std::span<Frame> frames, uint64_t* tooLong);
  uint64_t takeMissed();  // packets for which the kernel had no room since the last call

 private:
  const unsigned ifIndex_;
  Vela::UniqueFd descriptor_;
};

}  // namespace Forwarder
