// The way into the controller's device: it receives the packets that are sent here.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "forwarder/device/Frames.h"
#include "forwarder/device/SendSocket.h"
#include "platform/wirra/devices/InterfaceOperations.h"

namespace Forwarder {

// A TAP, to which this process attaches once it exists; or any device that packets are sent on,
// such as the peer of a veth. A new device of the same name is opened again. Threads: one at a
// time. Errors: trouble() says why packets do not arrive; nothing is thrown.
class CpuDevice {
 public:
  enum class Kind { tap, other, any };  // a device of another kind is trouble
  CpuDevice(std::string name, Kind kind,
            SendSocket::WhenFull whenFull = SendSocket::WhenFull::waitASecond);

  // Opens or closes the device as the kernel's devices now are.
  void maybeOpen();
  bool open() const { return tap_ || socket_; }
  bool tap() const { return tap_ != nullptr; }
  unsigned ifIndex() const { return ifIndex_; }  // 0: there was no such device
  const std::string& name() const { return name_; }
  // Why it is not open, or refused packets the last time; empty when all is well.
  const std::string& trouble() const { return trouble_; }

  SendCounts send(std::span<const Frame> frames);
  // Throws away packets that the kernel has put into our queue of the TAP, on their way out of it.
  void emptyQueue();

 private:
  void doOpen();
  void doClose();
  SendCounts sendIntoTap(std::span<const Frame> frames);
  SendCounts sendOnDevice(std::span<const Frame> frames);
  bool replaced() const;  // the name belongs to another device now

  const Kind kind_;
  const std::string name_;
  const SendSocket::WhenFull whenFull_;
  unsigned ifIndex_ = 0;
  std::unique_ptr<Wirra::TapDevice> tap_;
  std::unique_ptr<SendSocket> socket_;
  std::string trouble_;
};

}  // namespace Forwarder
