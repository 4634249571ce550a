#include "forwarder/PortSocket.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace Forwarder {
namespace {

constexpr int receiveBufferBytes = 64
                                   << 20;  // what 50,000 small packets take, as the kernel counts

void optionIs(int descriptor, int level, int name, int value) {
  setsockopt(descriptor, level, name, &value, sizeof value);
}

// The kernel takes an outer VLAN tag off and tells of it beside the packet.
void putTagBack(const msghdr& message, Frame& frame) {
  for (const cmsghdr* control = CMSG_FIRSTHDR(&message); control;
       control = CMSG_NXTHDR(const_cast<msghdr*>(&message), const_cast<cmsghdr*>(control))) {
    if (control->cmsg_level != SOL_PACKET || control->cmsg_type != PACKET_AUXDATA) continue;
    tpacket_auxdata about;
    std::memcpy(&about, CMSG_DATA(control), sizeof about);
    if (!(about.tp_status & TP_STATUS_VLAN_VALID)) return;
    const bool told = about.tp_status & TP_STATUS_VLAN_TPID_VALID;
    const uint16_t tag[] = {htons(told ? about.tp_vlan_tpid : ETH_P_8021Q),
                            htons(about.tp_vlan_tci)};
    constexpr size_t addresses = 2 * ETH_ALEN;
    if (frame.size < addresses) return;
    std::memmove(frame.start - sizeof tag, frame.start, addresses);
    frame.start -= sizeof tag;
    frame.size += sizeof tag;
    std::memcpy(frame.start + addresses, tag, sizeof tag);
  }
}

}  // namespace

unsigned ifIndexOf(const std::string& device) { return if_nametoindex(device.c_str()); }

PortSocket::PortSocket(const std::string& device) : ifIndex_(ifIndexOf(device)) {
  if (ifIndex_ == 0) throw std::system_error(ENODEV, std::generic_category());
  descriptor_ = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (descriptor_ < 0) throw std::system_error(errno, std::generic_category());
  optionIs(descriptor_, SOL_PACKET, PACKET_IGNORE_OUTGOING, 1);
  optionIs(descriptor_, SOL_PACKET, PACKET_AUXDATA, 1);
  optionIs(descriptor_, SOL_SOCKET, SO_RCVBUF, receiveBufferBytes);  // as far as the limit allows
  optionIs(descriptor_, SOL_SOCKET, SO_RCVBUFFORCE, receiveBufferBytes);
  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_protocol = htons(ETH_P_ALL);
  address.sll_ifindex = static_cast<int>(ifIndex_);
  if (bind(descriptor_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    const int error = errno;
    close(descriptor_);
    throw std::system_error(error, std::generic_category());
  }
}

PortSocket::~PortSocket() { close(descriptor_); }

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
  // An error (the device is down, or gone) is told once; it is not there for the next call.
  const int got = recvmmsg(descriptor_, messages.data(), static_cast<unsigned>(most), 0, nullptr);
  size_t kept = 0;
  for (int i = 0; i < got; ++i) {
    if (messages[i].msg_hdr.msg_flags & MSG_TRUNC) {
      ++*tooLong;
      continue;
    }
    Frame& frame = frames[kept++];
    frame = {batch.place(i), messages[i].msg_len};
    putTagBack(messages[i].msg_hdr, frame);
  }
  return kept;
}

uint64_t PortSocket::missed() {
  tpacket_stats stats{};
  socklen_t size = sizeof stats;
  if (getsockopt(descriptor_, SOL_PACKET, PACKET_STATISTICS, &stats, &size) != 0) return 0;
  return stats.tp_drops;
}

}  // namespace Forwarder
