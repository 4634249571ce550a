#include "forwarder/punt/PuntPorts.h"

#include <net/ethernet.h>

#include <algorithm>
#include <array>
#include <system_error>

#include "forwarder/device/KernelDevice.h"

namespace Forwarder {
namespace {

constexpr uint16_t etherTypeQinQ = 0x88a8;

uint16_t wordAt(const Frame& frame, size_t offset) {
  if (frame.size < offset + 2) return 0;
  return static_cast<uint16_t>(frame.start[offset] << 8 | frame.start[offset + 1]);
}

bool isVlanTag(uint16_t word) { return word == ETHERTYPE_VLAN || word == etherTypeQinQ; }

}  // namespace

void PuntPorts::portsAre(const std::map<uint32_t, std::string>& devices) {
  for (auto one = ports_.begin(); one != ports_.end();) {
    const auto found = devices.find(one->first);
    if (found != devices.end() && found->second == one->second.device) {
      ++one;
      continue;
    }
    closeDevice(one->second);
    one = ports_.erase(one);
  }
  for (const auto& [id, device] : devices) {
    Port& port = ports_[id];
    port.device = device;
    port.header = sender_.headerOf(id);
    openDevice(port);
    if (port.trouble.empty() && !port.header && sender_.headerTrouble().empty()) {
      port.trouble = "packet_in's ingress_port is too narrow for this port's id";
    }
  }
}

void PuntPorts::closeDevice(Port& port) {
  if (port.socket) counts_.missed += port.socket->takeMissed();
  port.socket.reset();
}

void PuntPorts::openDevice(Port& port) {
  if (port.socket) {
    counts_.missed += port.socket->takeMissed();
    if (ifIndexOf(port.device) == port.socket->ifIndex()) return;
    closeDevice(port);
  }
  try {
    port.trouble.clear();
    port.socket = std::make_unique<PortSocket>(port.device);
  } catch (const std::system_error& e) {
    port.trouble = deviceTrouble("read", port.device, e.code());
  }
}

void PuntPorts::pollDescriptors(std::vector<pollfd>& out) {
  polledPorts_.clear();
  for (auto& [id, port] : ports_) {
    if (!port.socket) continue;
    out.push_back({port.socket->descriptor(), POLLIN, 0});
    polledPorts_.push_back(&port);
  }
}

void PuntPorts::receive(std::span<const pollfd> polled) {
  for (size_t i = 0; i < polledPorts_.size(); ++i) {
    if (polled[i].revents != 0) receiveFrom(*polledPorts_[i]);
  }
}

void PuntPorts::receiveFrom(Port& port) {
  std::array<Frame, FrameBatch::count> frames;
  uint64_t tooLong = 0;
  const size_t got = port.socket->receive(sender_.batch(), frames, &tooLong);
  counts_.arrived += got + tooLong;
  counts_.tooLong += tooLong;
  const auto end = std::remove_if(frames.begin(), frames.begin() + got,
                                  [&](const Frame& frame) { return !passesFilter(frame); });
  const auto left = static_cast<size_t>(end - frames.begin());
  counts_.filtered += got - left;
  sender_.send({frames.data(), left}, port.header);
}

bool PuntPorts::passesFilter(const Frame& frame) const {
  if (etherTypes_.empty()) return true;
  constexpr size_t tagSize = 4;
  size_t at = 2 * ETH_ALEN;
  while (isVlanTag(wordAt(frame, at))) at += tagSize;
  return etherTypes_.contains(wordAt(frame, at));
}

}  // namespace Forwarder
