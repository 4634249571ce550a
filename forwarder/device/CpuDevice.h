// The way into the controller's device: it receives the packets that are sent here.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "forwarder/device/Frames.h"
#include "platform/vela/Descriptors.h"
#include "platform/wirra/devices/InterfaceOperations.h"

namespace Forwarder {

// The fates of sent packets. Each packet counts once.
struct SendCounts {
  uint64_t sent = 0;      // received by the device
  uint64_t tooLong = 0;   // for the device's MTU
  uint64_t noDevice = 0;  // the device is missing, or down
  uint64_t refused = 0;   // by the kernel, for another reason
};

// The TAP "p4controller", to which this process attaches once it exists; or any device that packets
// are sent on, such as the peer of a veth of that name. A new device of the same name is opened
// again.
// Threads: one at a time. Errors: trouble() says why packets do not arrive; nothing is thrown.
class CpuDevice {
 public:
  explicit CpuDevice(std::string sendOn);  // "": the TAP

  // Opens or closes the device as the kernel's devices now are.
  void maybeOpen();
  bool open() const { return tap_ || socket_; }
  const std::string& name() const { return name_; }
  // Why it is not open, or refused packets the last time; empty when all is well.
  const std::string& trouble() const { return trouble_; }

  SendCounts send(std::span<const Frame> frames);

 private:
  void doOpen();
  void doOpenSocket();
  void doClose();
  SendCounts sendIntoTap(std::span<const Frame> frames);
  SendCounts sendOnDevice(std::span<const Frame> frames);
  void handleRefused(int error, SendCounts& counts);
  bool replaced() const;  // the name belongs to another device now

  const bool tapWanted_;
  const std::string name_;
  unsigned ifIndex_ = 0;
  std::unique_ptr<Wirra::TapDevice> tap_;
  Vela::UniqueFd socket_;
  std::string trouble_;
};

}  // namespace Forwarder
