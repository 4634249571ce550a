// The way into the controller's device: what is written here, that device receives.
#pragma once

#include <memory>
#include <span>
#include <string>

#include "forwarder/PuntFrames.h"
#include "forwarder/PuntOptions.h"
#include "platform/wirra/InterfaceOperations.h"

namespace Forwarder {

// The TAP "p4controller", which this process attaches to when somebody has made it; or any device
// that packets are sent on, such as the peer of a veth of that name. Opened again when the device
// is another one of the same name.
class CpuDevice {
 public:
  explicit CpuDevice(std::string sendOn);  // "": the TAP
  ~CpuDevice();
  CpuDevice(const CpuDevice&) = delete;
  CpuDevice& operator=(const CpuDevice&) = delete;

  // Opens, closes, or keeps what is open, by what the kernel has now.
  void maybeOpen();
  bool open() const { return tap_ || descriptor_ >= 0; }
  const std::string& name() const { return name_; }
  // Why it is not open, or took no packets the last time; empty when all is well.
  const std::string& trouble() const { return trouble_; }

  // Each is received, or counted among the dropped ones.
  void send(std::span<const Frame> frames, PuntCounts& counts);

 private:
  void doOpen();
  void doOpenTap();
  void doOpenSocket();
  void doClose();
  void sendIntoTap(std::span<const Frame> frames, PuntCounts& counts);
  void sendOnDevice(std::span<const Frame> frames, PuntCounts& counts);
  void handleRefused(int error, PuntCounts& counts);
  bool up() const;
  bool replaced() const;  // what is open is not the device of that name any more

  const bool tapWanted_;
  const std::string name_;
  unsigned ifIndex_ = 0;
  std::unique_ptr<Wirra::TapDevice> tap_;
  int descriptor_ = -1;
  std::string trouble_;
};

}  // namespace Forwarder
