#include "forwarder/device/CpuDevice.h"

#include <fmt/format.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "forwarder/device/KernelDevice.h"

namespace Forwarder {

CpuDevice::CpuDevice(std::string name, Kind kind, SendSocket::WhenFull whenFull)
    : kind_(kind), name_(std::move(name)), whenFull_(whenFull) {}

void CpuDevice::maybeOpen() {
  const unsigned ifIndex = ifIndexOf(name_);
  if (open() && ifIndex == ifIndex_) return;
  doClose();
  ifIndex_ = ifIndex;
  try {
    trouble_.clear();
    if (ifIndex == 0) throw std::system_error(ENODEV, std::generic_category());
    doOpen();
  } catch (const std::system_error& e) {
    trouble_ = deviceTrouble("open", name_, e.code());
  }
}

void CpuDevice::doOpen() {
  // Attaching to a TAP that does not exist would make it; the agent makes it.
  if (kind_ != Kind::other && isTap(name_)) {
    tap_ = std::make_unique<Wirra::TapDevice>(name_);
  } else if (kind_ != Kind::tap) {
    socket_ = std::make_unique<SendSocket>(ifIndex_, whenFull_);
  } else {
    trouble_ =
        fmt::format("{} is no TAP; name the device at its other end with --punt-device", name_);
  }
}

void CpuDevice::doClose() {
  tap_.reset();
  socket_.reset();
}

SendCounts CpuDevice::send(std::span<const Frame> frames) {
  if (!open()) return {.noDevice = frames.size()};
  const SendCounts counts = tap_ ? sendIntoTap(frames) : sendOnDevice(frames);
  if (!trouble_.empty() && replaced()) maybeOpen();
  return counts;
}

bool CpuDevice::replaced() const { return ifIndexOf(name_) != ifIndex_; }

SendCounts CpuDevice::sendIntoTap(std::span<const Frame> frames) {
  SendCounts counts;
  trouble_.clear();
  for (const Frame& frame : frames) {
    const Vela::Outcome given = tap_->packetIs(frame.start, frame.size);
    if (given.ok()) {
      ++counts.sent;
      counts.sentBytes += frame.size;
    } else {
      trouble_ = given.reason();
    }
  }
  const uint64_t refused = frames.size() - counts.sent;
  if (refused > 0) (isUp(name_) && !replaced() ? counts.refused : counts.noDevice) = refused;
  return counts;
}

SendCounts CpuDevice::sendOnDevice(std::span<const Frame> frames) {
  const SendCounts counts = socket_->send(frames);
  trouble_ = sendTrouble(name_, socket_->error());
  return counts;
}

void CpuDevice::emptyQueue() {
  if (tap_) tap_->emptyQueue();
}

}  // namespace Forwarder
