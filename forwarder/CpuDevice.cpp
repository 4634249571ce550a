#include "forwarder/CpuDevice.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <linux/ethtool.h>
#include <linux/if_packet.h>
#include <linux/sockios.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include "forwarder/PortSocket.h"

namespace Forwarder {
namespace {

constexpr const char* controllerDevice = "p4controller";

// What the kernel says of a device of this network namespace.
bool asked(const std::string& device, unsigned long question, ifreq& request) {
  const int any = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  device.copy(request.ifr_name, sizeof request.ifr_name - 1);
  const bool answered = any >= 0 && ioctl(any, question, &request) == 0;
  if (any >= 0) close(any);
  return answered;
}

// Attaching to a TAP that is not there would make it, which is not for us to do.
bool isTap(const std::string& device) {
  ethtool_drvinfo info{.cmd = ETHTOOL_GDRVINFO};
  ifreq request{};
  request.ifr_data = reinterpret_cast<char*>(&info);
  return asked(device, SIOCETHTOOL, request) && std::strcmp(info.driver, "tun") == 0 &&
         std::strcmp(info.bus_info, "tap") == 0;
}

}  // namespace

CpuDevice::CpuDevice(std::string sendOn)
    : tapWanted_(sendOn.empty()), name_(tapWanted_ ? controllerDevice : std::move(sendOn)) {}

CpuDevice::~CpuDevice() { doClose(); }

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
    const bool gone = e.code() == std::errc::no_such_device;
    trouble_ = gone ? fmt::format("there is no device {}", name_)
                    : fmt::format("cannot open {}: {}", name_, e.code().message());
    if (e.code() == std::errc::operation_not_permitted) trouble_ += "; this needs CAP_NET_RAW";
  }
}

void CpuDevice::doOpen() {
  if (!tapWanted_) return doOpenSocket();
  if (isTap(name_)) {
    doOpenTap();
    return;
  }
  trouble_ =
      fmt::format("{} is no TAP; name the device at its other end with --punt-device", name_);
}

void CpuDevice::doOpenTap() { tap_ = std::make_unique<Wirra::TapDevice>(name_); }

void CpuDevice::doOpenSocket() {
  const int descriptor = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);  // protocol 0: sends only
  if (descriptor < 0) throw std::system_error(errno, std::generic_category());
  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_ifindex = static_cast<int>(ifIndex_);
  // A device that takes nothing more holds up nobody but those that wait behind it, and not for
  // good.
  const timeval patience{.tv_sec = 1};
  setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  if (bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    const int error = errno;
    close(descriptor);
    throw std::system_error(error, std::generic_category());
  }
  descriptor_ = descriptor;
}

void CpuDevice::doClose() {
  tap_.reset();
  if (descriptor_ >= 0) close(std::exchange(descriptor_, -1));
}

void CpuDevice::send(std::span<const Frame> frames, PuntCounts& counts) {
  if (tap_) {
    sendIntoTap(frames, counts);
  } else if (descriptor_ >= 0) {
    sendOnDevice(frames, counts);
  } else {
    counts.noDevice += frames.size();
  }
  if (open() && !trouble_.empty() && replaced()) maybeOpen();
}

bool CpuDevice::replaced() const { return ifIndexOf(name_) != ifIndex_; }

void CpuDevice::sendIntoTap(std::span<const Frame> frames, PuntCounts& counts) {
  uint64_t refused = 0;
  trouble_.clear();
  for (const Frame& frame : frames) {
    std::string why = tap_->packetIs(frame.start, frame.size);
    if (why.empty()) continue;
    trouble_ = std::move(why);
    ++refused;
  }
  counts.punted += frames.size() - refused;
  if (refused > 0) (up() && !replaced() ? counts.failed : counts.noDevice) += refused;
}

void CpuDevice::sendOnDevice(std::span<const Frame> frames, PuntCounts& counts) {
  std::array<mmsghdr, FrameBatch::count> messages;
  std::array<iovec, FrameBatch::count> parts;
  for (size_t i = 0; i < frames.size(); ++i) {
    parts[i] = {frames[i].start, frames[i].size};
    messages[i] = {.msg_hdr = {.msg_iov = &parts[i], .msg_iovlen = 1}};
  }
  trouble_.clear();
  for (size_t next = 0; next < frames.size();) {
    const int sent = sendmmsg(descriptor_, &messages[next],
                              static_cast<unsigned>(frames.size() - next), MSG_NOSIGNAL);
    if (sent > 0) {
      counts.punted += static_cast<uint64_t>(sent);
      next += static_cast<size_t>(sent);
    } else if (errno != EINTR) {
      handleRefused(errno, counts);
      ++next;
    }
  }
}

void CpuDevice::handleRefused(int error, PuntCounts& counts) {
  if (error == EMSGSIZE) {
    ++counts.tooLong;
    trouble_ = fmt::format(
        "{} does not take packets of this length; raise its MTU, and its peer's: ip link set {} "
        "mtu 9100",
        name_, name_);
  } else {
    ++(error == ENETDOWN || error == ENXIO || error == ENODEV ? counts.noDevice : counts.failed);
    trouble_ = fmt::format("{} takes no packets: {}", name_, std::strerror(error));
  }
}

bool CpuDevice::up() const {
  ifreq request{};
  return asked(name_, SIOCGIFFLAGS, request) && (request.ifr_flags & IFF_UP);
}

}  // namespace Forwarder
