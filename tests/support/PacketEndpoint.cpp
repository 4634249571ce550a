// See PacketEndpoint.h.
#include "tests/support/PacketEndpoint.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <system_error>
#include <vector>

namespace TestSupport {
namespace {

constexpr size_t batch = 64;
constexpr size_t slot = 1 << 16;

std::system_error systemError(const std::string& what) {
  return {errno, std::generic_category(), what};
}

int boundSocket(const std::string& device, bool receives) {
  const unsigned index = if_nametoindex(device.c_str());
  if (index == 0) throw systemError(device);
  const int descriptor = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
  if (descriptor < 0) throw systemError("AF_PACKET socket");
  const int yes = 1;
  const int bufferBytes = 256 << 20;
  setsockopt(descriptor, SOL_PACKET, PACKET_IGNORE_OUTGOING, &yes, sizeof yes);
  setsockopt(descriptor, SOL_SOCKET, SO_RCVBUFFORCE, &bufferBytes, sizeof bufferBytes);
  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_protocol = receives ? htons(ETH_P_ALL) : 0;
  address.sll_ifindex = static_cast<int>(index);
  if (bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    const auto error = systemError(device);
    close(descriptor);
    throw error;
  }
  return descriptor;
}

// Pages that no packet touches cost nothing.
struct Slots {
  Slots() {
    for (size_t i = 0; i < batch; ++i) {
      vectors[i] = {.iov_base = bytes.get() + i * slot, .iov_len = slot};
      messages[i].msg_hdr.msg_iov = &vectors[i];
      messages[i].msg_hdr.msg_iovlen = 1;
    }
  }
  std::unique_ptr<uint8_t[]> bytes{new uint8_t[batch * slot]};
  std::array<iovec, batch> vectors{};
  std::array<mmsghdr, batch> messages{};
};

}  // namespace

PacketEndpoint::PacketEndpoint(const std::string& device, Handler packet)
    : socket_(boundSocket(device, packet != nullptr)),
      stop_(eventfd(0, EFD_CLOEXEC)),
      handler_(std::move(packet)) {
  if (handler_) receiver_ = std::thread([this] { receive(); });
}

PacketEndpoint::~PacketEndpoint() {
  eventfd_write(stop_, 1);
  if (receiver_.joinable()) receiver_.join();
  close(stop_);
  close(socket_);
}

void PacketEndpoint::receive() {
  Slots slots;
  std::array<pollfd, 2> events{
      {{.fd = socket_, .events = POLLIN}, {.fd = stop_, .events = POLLIN}}};
  while (poll(events.data(), events.size(), -1) >= 0 && events[1].revents == 0) {
    // A device that goes down says so here, which clears the socket's error; then all goes on.
    const int count = recvmmsg(socket_, slots.messages.data(), batch, MSG_DONTWAIT, nullptr);
    if (count < 0 && errno != EAGAIN && errno != ENETDOWN && errno != EINTR) return;
    for (int i = 0; i < count; ++i) {
      const auto at = static_cast<size_t>(i);
      handler_({slots.bytes.get() + at * slot, slots.messages[at].msg_len});
    }
  }
}

size_t PacketEndpoint::send(std::span<const std::string_view> packets) {
  std::array<iovec, batch> vectors{};
  std::array<mmsghdr, batch> messages{};
  size_t sent = 0;
  while (sent < packets.size()) {
    const size_t count = std::min(batch, packets.size() - sent);
    for (size_t i = 0; i < count; ++i) {
      const std::string_view packet = packets[sent + i];
      vectors[i] = {.iov_base = const_cast<char*>(packet.data()), .iov_len = packet.size()};
      messages[i].msg_hdr.msg_iov = &vectors[i];
      messages[i].msg_hdr.msg_iovlen = 1;
    }
    const int done = sendmmsg(socket_, messages.data(), static_cast<unsigned>(count), 0);
    if (done < 0 && errno == EINTR) continue;
    if (done <= 0) return sent;
    sent += static_cast<size_t>(done);
  }
  return sent;
}

size_t PacketEndpoint::missed() {
  tpacket_stats statistics{};
  socklen_t size = sizeof statistics;
  getsockopt(socket_, SOL_PACKET, PACKET_STATISTICS, &statistics, &size);
  return statistics.tp_drops;
}

}  // namespace TestSupport
