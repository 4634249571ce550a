#include "forwarder/device/CpuDevice.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include "forwarder/device/KernelDevice.h"

namespace Forwarder {
namespace {

constexpr const char* controllerDevice = "p4controller";

}  // namespace

CpuDevice::CpuDevice(std::string sendOn)
    : tapWanted_(sendOn.empty()), name_(tapWanted_ ? controllerDevice : std::move(sendOn)) {}

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
  if (!tapWanted_) return doOpenSocket();
  // Attaching to a TAP that does not exist would make it; the agent makes it.
  if (isTap(name_)) {
    tap_ = std::make_unique<Wirra::TapDevice>(name_);
    return;
  }
  trouble_ =
      fmt::format("{} is no TAP; name the device at its other end with --punt-device", name_);
}

void CpuDevice::doOpenSocket() {
  Vela::UniqueFd descriptor = openPacketSocket(0);
  // A device that accepts no more packets delays the packets behind, but not for good.
  const timeval patience{.tv_sec = 1};
  setsockopt(descriptor.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  bindToDevice(descriptor.get(), ifIndex_, 0);
  socket_ = std::move(descriptor);
}

void CpuDevice::doClose() {
  tap_.reset();
  socket_ = Vela::UniqueFd();
}

SendCounts CpuDevice::send(std::span<const Frame> frames) {
  if (!open()) return {.noDevice = frames.size()};
  const SendCounts counts = tap_ ? sendIntoTap(frames) : sendOnDevice(frames);
  if (!trouble_.empty() && replaced()) maybeOpen();
  return counts;
}

bool CpuDevice::replaced() const { return ifIndexOf(name_) != ifIndex_; }

SendCounts CpuDevice::sendIntoTap(std::span<const Frame> frames) {
  uint64_t refused = 0;
  trouble_.clear();
  for (const Frame& frame : frames) {
    const Vela::Outcome given = tap_->packetIs(frame.start, frame.size);
    if (given.ok()) continue;
    trouble_ = given.reason();
    ++refused;
  }
  SendCounts counts{.sent = frames.size() - refused};
  if (refused > 0) (isUp(name_) && !replaced() ? counts.refused : counts.noDevice) = refused;
  return counts;
}

SendCounts CpuDevice::sendOnDevice(std::span<const Frame> frames) {
  SendCounts counts;
  std::array<mmsghdr, FrameBatch::count> messages;
  std::array<iovec, FrameBatch::count> parts;
  for (size_t i = 0; i < frames.size(); ++i) {
    parts[i] = {frames[i].start, frames[i].size};
    messages[i] = {.msg_hdr = {.msg_iov = &parts[i], .msg_iovlen = 1}};
  }
  trouble_.clear();
  for (size_t next = 0; next < frames.size();) {
    const int sent = sendmmsg(socket_.get(), &messages[next],
                              static_cast<unsigned>(frames.size() - next), MSG_NOSIGNAL);
    if (sent > 0) {
      counts.sent += static_cast<uint64_t>(sent);
      next += static_cast<size_t>(sent);
    } else if (errno != EINTR) {
      handleRefused(errno, counts);
      ++next;
    }
  }
  return counts;
}

void CpuDevice::handleRefused(int error, SendCounts& counts) {
  if (error == EMSGSIZE) {
    ++counts.tooLong;
    trouble_ = fmt::format(
        "{} does not take packets of this length; raise its MTU, and its peer's: ip link set {} "
        "mtu 9100",
        name_, name_);
  } else {
    ++(error == ENETDOWN || error == ENXIO || error == ENODEV ? counts.noDevice : counts.refused);
    trouble_ = fmt::format("{} takes no packets: {}", name_, std::strerror(error));
  }
}

}  // namespace Forwarder
