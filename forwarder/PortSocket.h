// Reads the packets that arrive on one kernel device.
#pragma once

#include <cstdint>
#include <string>

#include "forwarder/PuntFrames.h"

namespace Forwarder {

// Bound to the device that had the name when it was made. Without a reactor, unlike the packet
// access of platform/wirra: packets pass through one buffer, behind room for their header.
class PortSocket {
 public:
  // Throws std::system_error: no such device, no permission.
  explicit PortSocket(const std::string& device);
  ~PortSocket();
  PortSocket(const PortSocket&) = delete;
  PortSocket& operator=(const PortSocket&) = delete;

  int descriptor() const { return descriptor_; }
  unsigned ifIndex() const { return ifIndex_; }
  // Fills `frames` with what is there, without waiting; how many. Those longer than a FrameBatch
  // takes are left out and added to `tooLong`.
  size_t receive(FrameBatch& batch, std::span<Frame> frames, uint64_t* tooLong);
  uint64_t missed();  // since the last call: the kernel had no room for them

 private:
  int descriptor_ = -1;
  unsigned ifIndex_ = 0;
};

// 0 when there is no device of the name in this network namespace.
unsigned ifIndexOf(const std::string& device);

}  // namespace Forwarder
