// A port of the switch on its kernel device.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "forwarder/device/CpuDevice.h"
#include "forwarder/device/DeviceWatch.h"
#include "forwarder/device/PacketRing.h"
#include "forwarder/device/SendSocket.h"
#include "forwarder/packets/PcapFile.h"
#include "forwarder/packets/PortBook.h"

namespace Forwarder {

// Threads: the packet thread. Errors: a device that cannot be opened is trouble(), and is tried
// again by each deviceIs().
class SwitchPort {
 public:
  enum class Kind { port, cpu };
  SwitchPort(uint32_t id, std::string device, Kind kind);

  uint32_t id() const { return id_; }
  const std::string& device() const { return device_; }
  bool cpu() const { return cpu_.has_value(); }
  bool up() const { return up_; }
  const std::shared_ptr<LivePortCounts>& counts() const { return counts_; }
  PortReport report() const;

  // The device of this name, null when there is none. Opens and closes sockets accordingly, and
  // returns whether it did so.
  bool deviceIs(const Wirra::Link* link);
  bool inTrouble() const { return !trouble_.empty(); }
  PacketRing* ring() { return ring_.get(); }  // null while the device is not there
  // The kernel puts a copy of the agent's packets into our queue of the TAP, too; nobody reads it.
  void emptyQueue() {
    if (cpu_) cpu_->emptyQueue();
  }

  // Frames wait for the next send(), and their bytes must last until then.
  bool anyWaiting() const { return !waiting_.empty(); }
  void add(const Frame& frame) { waiting_.push_back(frame); }
  void send();
  void countMissed();  // asks the kernel

  // Null ends it.
  void pcapInIs(std::shared_ptr<PcapFile> file) { pcapIn_ = std::move(file); }
  void pcapOutIs(std::shared_ptr<PcapFile> file) { pcapOut_ = std::move(file); }
  PcapFile* pcapIn() const { return pcapIn_.get(); }
  bool flushPcap();  // returns whether a file has come into trouble

 private:
  void doOpen(const Wirra::Link& link);
  void doClose();
  void markShortFrames();

  const uint32_t id_;
  const std::string device_;
  const std::shared_ptr<LivePortCounts> counts_ = std::make_shared<LivePortCounts>();
  bool up_ = false;
  std::string trouble_;
  std::unique_ptr<PacketRing> ring_;
  std::unique_ptr<SendSocket> sender_;  // of all but the CPU port
  std::optional<CpuDevice> cpu_;
  std::vector<Frame> waiting_;
  std::deque<std::vector<uint8_t>> marked_;     // bytes of waiting frames, while they are sent
  std::shared_ptr<PcapFile> pcapIn_, pcapOut_;  // may be the same
  bool pcapTroubleTold_ = false;
};

}  // namespace Forwarder
