#include "platform/wirra/packets/ReceiveBatch.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>

#include <algorithm>
#include <cstring>

#include "platform/wirra/packets/Checksum.h"

namespace Wirra {

namespace {

constexpr size_t addressBytes = 2 * ETH_ALEN;  // a VLAN tag stands after the addresses

// A little more than a packet, so that the slots do not all fall on the same lines of the cache.
constexpr size_t slotBytes = ReceiveBatch::mostBytes + 192;

void auxiliaryIs(Frame& frame, const tpacket_auxdata& auxiliary) {
  frame.checksumMissing = auxiliary.tp_status & TP_STATUS_CSUMNOTREADY;
  if (!(auxiliary.tp_status & TP_STATUS_VLAN_VALID)) return;
  const bool typeKnown = auxiliary.tp_status & TP_STATUS_VLAN_TPID_VALID;
  const uint16_t type = htons(typeKnown ? auxiliary.tp_vlan_tpid : uint16_t{ETH_P_8021Q});
  const uint16_t control = htons(auxiliary.tp_vlan_tci);
  std::memcpy(frame.tag, &type, sizeof type);
  std::memcpy(frame.tag + sizeof type, &control, sizeof control);
  frame.tagged = frame.bytes.size() >= addressBytes;
}

}  // namespace

void Frame::copyTo(uint8_t* wire) const {
  const size_t before = tagged ? addressBytes : bytes.size();
  std::memcpy(wire, bytes.data(), before);
  if (tagged) {
    std::memcpy(wire + before, tag, sizeof tag);
    std::memcpy(wire + before + sizeof tag, bytes.data() + before, bytes.size() - before);
  }
  if (checksumMissing) completeChecksum({wire, wireSize()});
}

ReceiveBatch::ReceiveBatch()
    : buffer_(std::make_unique_for_overwrite<uint8_t[]>(slotBytes * mostFrames)) {
  for (size_t i = 0; i < mostFrames; ++i) {
    slots_[i].bytes = {buffer_.get() + i * slotBytes, mostBytes};
    messages_[i] = {};
    messages_[i].msg_hdr.msg_iov = &slots_[i].bytes;
    messages_[i].msg_hdr.msg_iovlen = 1;
    messages_[i].msg_hdr.msg_control = slots_[i].control;
  }
}

int ReceiveBatch::read(int descriptor, size_t most) {
  const size_t wanted = std::min(most, mostFrames);
  for (size_t i = 0; i < wanted; ++i)
    messages_[i].msg_hdr.msg_controllen = sizeof slots_[i].control;
  // MSG_TRUNC: the whole length, also of a packet that does not fit.
  return recvmmsg(descriptor, messages_, static_cast<unsigned>(wanted), MSG_DONTWAIT | MSG_TRUNC,
                  nullptr);
}

Frame ReceiveBatch::frame(size_t number) const {
  const mmsghdr& message = messages_[number];
  Frame frame;
  frame.tooLong = message.msg_len > mostBytes;
  frame.bytes = {static_cast<const uint8_t*>(slots_[number].bytes.iov_base),
                 std::min<size_t>(message.msg_len, mostBytes)};
  const cmsghdr* control = CMSG_FIRSTHDR(&message.msg_hdr);
  if (control && control->cmsg_level == SOL_PACKET && control->cmsg_type == PACKET_AUXDATA) {
    tpacket_auxdata auxiliary;
    std::memcpy(&auxiliary, CMSG_DATA(control), sizeof auxiliary);
    auxiliaryIs(frame, auxiliary);
  }
  return frame;
}

}  // namespace Wirra
