// The ports whose packets are punted, each with a socket on its device.
#pragma once

#include <poll.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "forwarder/device/PortSocket.h"
#include "forwarder/punt/PuntSender.h"

namespace Forwarder {

// Threads: one at a time, the punting thread. Errors: a device that cannot be read leaves its port
// with a trouble, and is tried again by each portsAre(). Lifetime: the sender outlives it.
class PuntPorts {
 public:
  struct Port {
    std::string device;
    std::unique_ptr<PortSocket> socket;  // null while there is trouble with the device
    std::optional<std::string> header;   // nothing: packets are dropped
    std::string trouble;                 // "" when all is well
  };

  // Only packets of these EtherTypes are punted; without EtherTypes, all packets.
  PuntPorts(std::set<uint16_t> etherTypes, PuntSender& sender)
      : etherTypes_(std::move(etherTypes)), sender_(sender), counts_(sender.counts()) {}

  // Port id -> device. Opens devices that have come or changed, and closes devices that have gone.
  void portsAre(const std::map<uint32_t, std::string>& devices);
  const std::map<uint32_t, Port>& ports() const { return ports_; }

  // Appends the sockets to wait for. The next receive() takes the same part of the list back.
  void pollDescriptors(std::vector<pollfd>& out);
  void receive(std::span<const pollfd> polled);  // punts the packets that have arrived
  void closeAll() { ports_.clear(); }

 private:
  void openDevice(Port& port);
  void closeDevice(Port& port);
  void receiveFrom(Port& port);
  bool passesFilter(const Frame& frame) const;

  const std::set<uint16_t> etherTypes_;
  PuntSender& sender_;
  PuntCounts& counts_;
  std::map<uint32_t, Port> ports_;
  std::vector<Port*> polledPorts_;
};

}  // namespace Forwarder
