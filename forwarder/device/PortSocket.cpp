#include "forwarder/device/PortSocket.h"

#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "forwarder/device/KernelDevice.h"
#include "forwarder/device/VlanTag.h"

namespace Forwarder {
namespace {

// The kernel counts so many bytes for 50,000 small packets.
constexpr int receiveBufferBytes = 64 << 20;

void optionIs(int descriptor, int level, int name, int value) {
  setsockopt(descriptor, level, name, &value, sizeof value);
}

void maybePutTagBack(const msghdr& message, Frame& frame) {
  for (const cmsghdr* control = CMSG_FIRSTHDR(&message); control;
       control = CMSG_NXTHDR(const_cast<msghdr*>(&message), const_cast<cmsghdr*>(control))) {
    if (control->cmsg_level != SOL_PACKET || control->cmsg_type != PACKET_AUXDATA) continue;
    tpacket_auxdata about;
    std::memcpy(&about, CMSG_DATA(control), sizeof about);
    if (!(about.tp_status & TP_STATUS_VLAN_VALID)) return;
    const bool told = about.tp_status & TP_STATUS_VLAN_TPID_VALID;
    putTagBack(frame, told ? about.tp_vlan_tpid : uint16_t{0}, about.tp_vlan_tci);
  }
}

}  // namespace

PortSocket::PortSocket(const std::string& device) : ifIndex_(ifIndexOf(device)) {
  if (ifIndex_ == 0) throw std::system_error(ENODEV, std::generic_category());
  descriptor_ = openPacketSocket(SOCK_NONBLOCK);
  optionIs(descriptor(), SOL_PACKET, PACKET_IGNORE_OUTGOING, 1);
  optionIs(descriptor(), SOL_PACKET, PACKET_AUXDATA, 1);
  optionIs(descriptor(), SOL_SOCKET, SO_RCVBUF, receiveBufferBytes);  // as far as the limit allows
  optionIs(descriptor(), SOL_SOCKET, SO_RCVBUFFORCE, receiveBufferBytes);
  bindToDevice(descriptor(), ifIndex_, ETH_P_ALL);
}

size_t PortSocket::receive(FrameBatch& batch, std::span<Frame> frames, uint64_t* tooLong) {
  std::array<mmsghdr, FrameBatch::count> messages;
  std::array<iovec, FrameBatch::count> parts;
  alignas(cmsghdr) char control[FrameBatch::count][CMSG_SPACE(sizeof(tpacket_auxdata))];
  const size_t most = std::min(frames.size(), FrameBatch::count);
  for (size_t i = 0; i < most; ++i) {
    parts[i] = {batch.place(i), FrameBatch::longest};
    messages[i].msg_hdr = {.msg_iov = &parts[i],
                           .msg_iovlen = 1,
                           .msg_control = control[i],
                           .msg_controllen = sizeof control[i]};
  }
  // An error (the device is down, or gone) is reported by one call and not by the next.
  const int got = recvmmsg(descriptor(), messages.data(), static_cast<unsigned>(most), 0, nullptr);
  size_t kept = 0;
  for (int i = 0; i < got; ++i) {
    if (messages[i].msg_hdr.msg_flags & MSG_TRUNC) {
      ++*tooLong;
      continue;
    }
    Frame& frame = frames[kept++];
    frame = {batch.place(i), messages[i].msg_len};
    maybePutTagBack(messages[i].msg_hdr, frame);
  }
  return kept;
}

uint64_t PortSocket::takeMissed() {
  tpacket_stats stats{};
  socklen_t size = sizeof stats;
  if (getsockopt(descriptor(), SOL_PACKET, PACKET_STATISTICS, &stats, &size) != 0) return 0;
  return stats.tp_drops;
}

}  // namespace Forwarder
