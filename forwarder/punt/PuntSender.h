// The last steps of a punted packet: the metadata in front, and the controller's device.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "forwarder/device/CpuDevice.h"
#include "forwarder/device/Frames.h"
#include "forwarder/punt/PuntCounts.h"
#include "forwarder/punt/PuntHeader.h"

namespace Forwarder {

// Threads: one at a time, the punting thread. Errors: a packet that cannot be sent is counted and
// dropped; the functions about trouble say why, and return "" when all is well.
// Lifetime: the counts outlive it.
class PuntSender {
 public:
  // Device "": the TAP p4controller.
  PuntSender(std::string device, PuntCounts& counts);

  // Takes the layout of packet_in, as lines of the agent. A layout that does not fit is trouble.
  void headerIs(std::string_view packetIn, const PuntValues& values);
  // Why the agent has given no layout.
  void headerTroubleIs(std::string trouble) { headerTrouble_ = std::move(trouble); }
  const PuntHeader& header() const { return header_; }
  const std::string& headerTrouble() const { return headerTrouble_; }

  PuntCounts& counts() { return counts_; }
  FrameBatch& batch() { return batch_; }  // for the packets to be sent next
  CpuDevice& device() { return device_; }
  const CpuDevice& device() const { return device_; }

  // The metadata of packets from a port; nothing when they cannot be punted.
  std::optional<std::string> headerOf(uint32_t port) const;
  std::string troubleOf(uint32_t port) const;  // why packets of the port are dropped
  bool ready(uint32_t port) const { return device_.open() && headerOf(port); }

  // Returns the number of packets that the controller's device has received. Without a header all
  // are dropped.
  uint64_t send(std::span<Frame> frames, const std::optional<std::string>& header);

 private:
  PuntCounts& counts_;
  PuntHeader header_;
  std::string headerTrouble_ = "the agent has not been asked yet";
  CpuDevice device_;
  FrameBatch batch_;
};

}  // namespace Forwarder
