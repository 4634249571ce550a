#include "platform/wirra/packets/PacketSocket.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace Wirra {

namespace {

// The kernel's buffer for packets that come while the reactor is busy.
constexpr int receiveBufferBytes = 64 << 20;
constexpr int sendBufferBytes = 4 << 20;

void optionIs(int descriptor, int level, int option, int value) {
  setsockopt(descriptor, level, option, &value, sizeof value);  // best effort
}

// Goes beyond the system's limit if this process may, and up to it otherwise.
void bufferIs(int descriptor, int force, int plain, int bytes) {
  if (setsockopt(descriptor, SOL_SOCKET, force, &bytes, sizeof bytes) == 0) return;
  optionIs(descriptor, SOL_SOCKET, plain, bytes);
}

}  // namespace

PacketSocket::PacketSocket(const std::string& device, bool receive) : device_(device) {
  // Bound to no protocol until its device is known: packets of other devices must not come in.
  descriptor_ = socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (descriptor_ < 0) fail("open packets of");
  ifIndex_ = static_cast<int>(if_nametoindex(device.c_str()));
  if (ifIndex_ == 0) fail("find");
  bufferIs(descriptor_, SO_SNDBUFFORCE, SO_SNDBUF, sendBufferBytes);
  if (receive) doPrepareReceive();
  doBind(receive);
}

PacketSocket::~PacketSocket() {
  if (descriptor_ >= 0) close(descriptor_);
}

void PacketSocket::doPrepareReceive() {
  bufferIs(descriptor_, SO_RCVBUFFORCE, SO_RCVBUF, receiveBufferBytes);
  optionIs(descriptor_, SOL_PACKET, PACKET_IGNORE_OUTGOING, 1);  // since Linux 4.20
  optionIs(descriptor_, SOL_PACKET, PACKET_AUXDATA, 1);
  // A port of a switch takes packets for other addresses.
  packet_mreq promiscuous{};
  promiscuous.mr_ifindex = ifIndex_;
  promiscuous.mr_type = PACKET_MR_PROMISC;
  setsockopt(descriptor_, SOL_PACKET, PACKET_ADD_MEMBERSHIP, &promiscuous, sizeof promiscuous);
}

void PacketSocket::doBind(bool receive) {
  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_protocol = receive ? htons(ETH_P_ALL) : 0;
  address.sll_ifindex = ifIndex_;
  if (bind(descriptor_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    fail("open packets of");
  }
}

void PacketSocket::fail(const char* what) {
  const int error = errno;
  if (descriptor_ >= 0) close(descriptor_);
  throw std::system_error(error, std::generic_category(),
                          std::string("cannot ") + what + " the network device " + device_);
}

}  // namespace Wirra
