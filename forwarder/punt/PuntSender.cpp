#include "forwarder/punt/PuntSender.h"

#include <fmt/format.h>

#include "forwarder/base/Answer.h"

namespace Forwarder {

PuntSender::PuntSender(std::string device, PuntCounts& counts)
    : counts_(counts),
      device_(device.empty() ? CpuDevice("p4controller", CpuDevice::Kind::tap)
                             : CpuDevice(std::move(device), CpuDevice::Kind::other)) {}

void PuntSender::headerIs(std::string_view packetIn, const PuntValues& values) {
  try {
    header_ = PuntHeader(packetIn, values);
    headerTrouble_.clear();
  } catch (const CommandError& e) {
    headerTrouble_ = e.what();
  }
}

std::optional<std::string> PuntSender::headerOf(uint32_t port) const {
  if (!headerTrouble_.empty()) return std::nullopt;
  return header_.bytes(port);
}

std::string PuntSender::troubleOf(uint32_t port) const {
  if (!headerTrouble_.empty()) return headerTrouble_;
  if (!device_.trouble().empty()) return device_.trouble();
  return fmt::format("packet_in's ingress_port is too narrow for port {}", port);
}

uint64_t PuntSender::send(std::span<Frame> frames, const std::optional<std::string>& header) {
  if (!header) {
    counts_.noHeader += frames.size();
    return 0;
  }
  for (Frame& frame : frames) frame.prepend(*header);
  const SendCounts sent = device_.send(frames);
  counts_.add(sent);
  return sent.sent;
}

}  // namespace Forwarder
