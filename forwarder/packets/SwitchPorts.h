// All ports of the switch: opened and closed as the mapping and the kernel's devices change.
#pragma once

#include <absl/container/flat_hash_map.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "forwarder/device/DeviceWatch.h"
#include "forwarder/packets/PacketThread.h"
#include "forwarder/packets/SwitchPort.h"

namespace Forwarder {

// Threads: the packet thread. Lifetime: options, sinks and book outlive it.
class SwitchPorts {
 public:
  SwitchPorts(const PacketOptions& options, const PacketSinks& sinks, PortBook& book);

  // Port id -> device.
  void portsAre(const std::map<uint32_t, std::string>& devices);
  // Looks whether devices have come, gone or changed, and tries again where there is trouble.
  void followDevices();
  bool devicesChanged() const { return devicesChanged_; }  // as wait() has seen
  // Once a second: asks the kernel for packets that got lost.
  void countMissed();
  void flushPcap();
  // Throws CommandError: the file cannot be written.
  void pcapIs(uint32_t port, PcapWay way, std::shared_ptr<PcapFile> file);

  SwitchPort* find(uint32_t id) const {
    const auto found = byId_.find(id);
    return found == byId_.end() ? nullptr : found->second;
  }
  const std::vector<SwitchPort*>& all() const { return all_; }

  // Until a port or `descriptor` is readable, devices have changed, or the time is over.
  void wait(int descriptor, std::chrono::milliseconds timeout);

 private:
  void addPort(uint32_t id, const std::string& device, SwitchPort::Kind kind);
  void removePort(SwitchPort& port);
  void lookAt(SwitchPort& port);
  void tell(const SwitchPort& port);
  void listPorts();
  void listDescriptors(int descriptor);
  void maybePcapOf(SwitchPort& port);
  void log(const std::string& line) const;

  const PacketOptions& options_;
  const PacketSinks& sinks_;
  PortBook& book_;
  DeviceWatch watch_;
  std::map<uint32_t, std::unique_ptr<SwitchPort>> ports_;
  absl::flat_hash_map<uint32_t, SwitchPort*> byId_;
  std::vector<SwitchPort*> all_;
  std::map<uint32_t, PortReport> told_;
  bool devicesChanged_ = false;
  Vela::UniqueFd epoll_;  // empty: to be made again
};

}  // namespace Forwarder
