#include "forwarder/device/PacketRing.h"

#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "forwarder/device/KernelDevice.h"

namespace Forwarder {
namespace {

constexpr uint32_t ringBytes = 4 << 20;
constexpr int longBufferBytes = 16 << 20;  // for frames that do not fit a slot
constexpr size_t longest = 1 << 17;        // bytes of a frame, with room to spare
constexpr size_t tagBytes = 4;

template <typename Value>
void optionIs(int descriptor, int level, int name, const Value& value) {
  if (setsockopt(descriptor, level, name, &value, sizeof value) != 0) {
    throw std::system_error(errno, std::generic_category());
  }
}

void maybeOptionIs(int descriptor, int level, int name, int value) {
  setsockopt(descriptor, level, name, &value, sizeof value);
}

void onlyLeaving(int descriptor) {
  std::array<sock_filter, 4> code{{
      {BPF_LD | BPF_B | BPF_ABS, 0, 0, static_cast<uint32_t>(SKF_AD_OFF + SKF_AD_PKTTYPE)},
      {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, PACKET_OUTGOING},
      {BPF_RET | BPF_K, 0, 0, UINT32_MAX},
      {BPF_RET | BPF_K, 0, 0, 0},
  }};
  optionIs(descriptor, SOL_SOCKET, SO_ATTACH_FILTER,
           sock_fprog{static_cast<unsigned short>(code.size()), code.data()});
}

uint32_t statusOf(const tpacket2_hdr* header) {
  return __atomic_load_n(&header->tp_status, __ATOMIC_ACQUIRE);
}

}  // namespace

PacketRing::Layout PacketRing::layoutFor(unsigned mtuBytes) {
  constexpr uint32_t ordinary = 2048;  // 1,500 bytes, a header of the kernel's and two tags
  constexpr uint32_t ordinaryMtu = 1850;
  constexpr uint32_t jumbo = 10240;
  Layout layout{.slotBytes = mtuBytes <= ordinaryMtu ? ordinary : jumbo};
  layout.slotsOfBlock = blockBytes / layout.slotBytes;
  layout.slots = ringBytes / blockBytes * layout.slotsOfBlock;
  return layout;
}

PacketRing::PacketRing(unsigned ifIndex, unsigned mtuBytes, Way way)
    : ifIndex_(ifIndex),
      layout_(layoutFor(mtuBytes)),
      descriptor_(openPacketSocket(SOCK_NONBLOCK)),
      long_(new uint8_t[longest]) {
  const int socket = descriptor();
  optionIs(socket, SOL_PACKET, PACKET_VERSION, int{TPACKET_V2});
  optionIs(socket, SOL_PACKET, PACKET_VNET_HDR, 1);
  optionIs(socket, SOL_PACKET, PACKET_COPY_THRESH, 1);
  maybeOptionIs(socket, SOL_SOCKET, SO_RCVBUF, longBufferBytes);  // as far as the limit allows
  maybeOptionIs(socket, SOL_SOCKET, SO_RCVBUFFORCE, longBufferBytes);
  if (way == Way::arriving) {
    optionIs(socket, SOL_PACKET, PACKET_IGNORE_OUTGOING, 1);
    const packet_mreq promiscuous{.mr_ifindex = static_cast<int>(ifIndex),
                                  .mr_type = PACKET_MR_PROMISC};
    optionIs(socket, SOL_PACKET, PACKET_ADD_MEMBERSHIP, promiscuous);
  } else {
    onlyLeaving(socket);
  }
  doMap();
  bindToDevice(socket, ifIndex, ETH_P_ALL);
}

void PacketRing::Unmap::operator()(uint8_t* memory) const { munmap(memory, ringBytes); }

void PacketRing::doMap() {
  optionIs(descriptor(), SOL_PACKET, PACKET_RX_RING,
           tpacket_req{.tp_block_size = blockBytes,
                       .tp_block_nr = ringBytes / blockBytes,
                       .tp_frame_size = layout_.slotBytes,
                       .tp_frame_nr = layout_.slots});
  void* memory = mmap(nullptr, ringBytes, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor(), 0);
  if (memory == MAP_FAILED) throw std::system_error(errno, std::generic_category());
  memory_.reset(static_cast<uint8_t*>(memory));
}

bool PacketRing::ready() const {
  return statusOf(reinterpret_cast<const tpacket2_hdr*>(slot())) & TP_STATUS_USER;
}

void PacketRing::doReturnSlot() {
  auto* const header = reinterpret_cast<tpacket2_hdr*>(slot());
  __atomic_store_n(&header->tp_status, TP_STATUS_KERNEL, __ATOMIC_RELEASE);
  if (++at_ == layout_.slots) at_ = 0;
  taken_ = false;
}

bool PacketRing::next(Arrival& arrival) {
  if (taken_) doReturnSlot();
  uint8_t* const place = slot();
  const auto* const header = reinterpret_cast<const tpacket2_hdr*>(place);
  const uint32_t status = statusOf(header);
  if (!(status & TP_STATUS_USER)) return false;
  taken_ = true;
  uint8_t* const start = place + header->tp_mac;
  std::memcpy(&arrival.offloads, start - sizeof arrival.offloads, sizeof arrival.offloads);
  arrival.frame = {start, header->tp_snaplen};
  arrival.cutShort = header->tp_snaplen < header->tp_len;
  arrival.tagged = status & TP_STATUS_VLAN_VALID;
  arrival.tagProtocol = status & TP_STATUS_VLAN_TPID_VALID ? header->tp_vlan_tpid : uint16_t{0};
  arrival.tag = header->tp_vlan_tci;
  arrival.seconds = header->tp_sec;
  arrival.nanoseconds = header->tp_nsec;
  if (status & TP_STATUS_COPY) readLong(arrival, header->tp_len);
  return true;
}

// A frame that does not fit a slot waits whole in the socket's queue, in the same order.
void PacketRing::readLong(Arrival& arrival, size_t size) {
  uint8_t* const start = long_.get() + tagBytes;
  std::array<iovec, 2> parts{
      {{&arrival.offloads, sizeof arrival.offloads}, {start, longest - tagBytes}}};
  msghdr message{.msg_iov = parts.data(), .msg_iovlen = parts.size()};
  const ssize_t got = recvmsg(descriptor(), &message, MSG_DONTWAIT);
  arrival.cutShort = got != static_cast<ssize_t>(size + sizeof arrival.offloads);
  arrival.frame = {start, size};
}

uint64_t PacketRing::takeMissed() {
  tpacket_stats stats{};
  socklen_t size = sizeof stats;
  if (getsockopt(descriptor(), SOL_PACKET, PACKET_STATISTICS, &stats, &size) != 0) return 0;
  return stats.tp_drops;
}

void PacketRing::clearError() {
  int error = 0;
  socklen_t size = sizeof error;
  getsockopt(descriptor(), SOL_SOCKET, SO_ERROR, &error, &size);
}

}  // namespace Forwarder
