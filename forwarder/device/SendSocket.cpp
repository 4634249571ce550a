#include "forwarder/device/SendSocket.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "forwarder/device/KernelDevice.h"

namespace Forwarder {
namespace {

// Packets that wait in the device's queue, as the kernel counts their memory.
constexpr int sendBufferBytes = 8 << 20;

}  // namespace

SendSocket::SendSocket(unsigned ifIndex, WhenFull whenFull)
    : descriptor_(openPacketSocket(0)), flags_(MSG_NOSIGNAL) {
  if (whenFull == WhenFull::drop) {
    flags_ |= MSG_DONTWAIT;
    setsockopt(descriptor_.get(), SOL_SOCKET, SO_SNDBUFFORCE, &sendBufferBytes, sizeof(int));
  } else {
    // A device that accepts no more packets delays the packets behind, but not for good.
    const timeval patience{.tv_sec = 1};
    setsockopt(descriptor_.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  }
  bindToDevice(descriptor_.get(), ifIndex, 0);
}

SendCounts SendSocket::send(std::span<const Frame> frames) {
  SendCounts counts;
  std::array<mmsghdr, FrameBatch::count> messages;
  std::array<iovec, FrameBatch::count> parts;
  error_ = 0;
  while (!frames.empty()) {
    const size_t some = std::min(frames.size(), messages.size());
    for (size_t i = 0; i < some; ++i) {
      parts[i] = {frames[i].start, frames[i].size};
      messages[i] = {.msg_hdr = {.msg_iov = &parts[i], .msg_iovlen = 1}};
    }
    const int sent =
        sendmmsg(descriptor_.get(), messages.data(), static_cast<unsigned>(some), flags_);
    if (sent > 0) {
      const auto done = frames.first(static_cast<size_t>(sent));
      counts.sent += done.size();
      for (const Frame& frame : done) counts.sentBytes += frame.size;
      frames = frames.subspan(done.size());
    } else if (errno != EINTR) {
      count(errno, counts);
      frames = frames.subspan(1);
    }
  }
  return counts;
}

void SendSocket::count(int error, SendCounts& counts) {
  error_ = error;
  switch (error) {
    case EMSGSIZE:
      ++counts.tooLong;
      return;
    case ENETDOWN:
    case ENXIO:
    case ENODEV:
      ++counts.noDevice;
      return;
    case EAGAIN:
    case ENOBUFS:
      ++counts.full;
      return;
    default:
      ++counts.refused;
  }
}

std::string sendTrouble(const std::string& device, int error) {
  if (error == 0) return {};
  if (error == EMSGSIZE) {
    return fmt::format(
        "{} does not take packets of this length; raise its MTU, and its peer's: ip link set {} "
        "mtu 9100",
        device, device);
  }
  return fmt::format("{} takes no packets: {}", device, std::strerror(error));
}

}  // namespace Forwarder
