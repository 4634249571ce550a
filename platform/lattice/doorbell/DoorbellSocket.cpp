#include "platform/lattice/doorbell/DoorbellSocket.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include "platform/vela/UnixListener.h"

namespace Lattice {
namespace {

// Room for one descriptor beside a message.
struct DescriptorSpace {
  alignas(cmsghdr) char bytes[CMSG_SPACE(sizeof(int))];

  void offer(msghdr& header) {
    header.msg_control = bytes;
    header.msg_controllen = sizeof bytes;
  }
  void hold(msghdr& header, int descriptor) {
    offer(header);
    cmsghdr* const part = CMSG_FIRSTHDR(&header);
    part->cmsg_level = SOL_SOCKET;
    part->cmsg_type = SCM_RIGHTS;
    part->cmsg_len = CMSG_LEN(sizeof descriptor);
    std::memcpy(CMSG_DATA(part), &descriptor, sizeof descriptor);
  }
  static Vela::UniqueFd taken(msghdr& header) {
    int descriptor = -1;
    const cmsghdr* const part = CMSG_FIRSTHDR(&header);
    const bool isOne = part && part->cmsg_level == SOL_SOCKET && part->cmsg_type == SCM_RIGHTS &&
                       part->cmsg_len == CMSG_LEN(sizeof descriptor);
    if (isOne) std::memcpy(&descriptor, CMSG_DATA(part), sizeof descriptor);
    return Vela::UniqueFd(descriptor);
  }
};

}  // namespace

Socket::~Socket() {
  if (descriptor_ >= 0) close(descriptor_);
}

Socket::Sent Socket::send(std::string_view message, int descriptor) const {
  iovec part{const_cast<char*>(message.data()), message.size()};
  msghdr header{};
  header.msg_iov = &part;
  header.msg_iovlen = 1;
  DescriptorSpace space{};
  if (descriptor >= 0) space.hold(header, descriptor);
  const ssize_t sent = sendmsg(descriptor_, &header, MSG_NOSIGNAL);
  if (sent >= 0) return Sent::all;
  const bool later = errno == EAGAIN || errno == ENOBUFS || errno == EINTR || errno == ENOMEM;
  return later ? Sent::wouldBlock : Sent::gone;
}

Socket::Received Socket::receive(std::string& buffer, std::string_view* message,
                                 Vela::UniqueFd* descriptor) const {
  iovec part{buffer.data(), buffer.size()};
  msghdr header{};
  header.msg_iov = &part;
  header.msg_iovlen = 1;
  DescriptorSpace space{};
  if (descriptor) space.offer(header);
  const ssize_t got = recvmsg(descriptor_, &header, MSG_CMSG_CLOEXEC);
  if (got < 0) {
    return errno == EAGAIN || errno == EINTR ? Received::nothing : Received::gone;
  }
  if (descriptor) *descriptor = space.taken(header);
  if (header.msg_flags & MSG_TRUNC) return Received::oversized;
  if (got == 0) return Received::gone;  // we send no empty packets
  *message = {buffer.data(), static_cast<size_t>(got)};
  return Received::message;
}

Socket connectedTo(const std::string& path, int* error) try {
  const Vela::UnixAddress address(path);
  Socket made(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (made && connect(made.descriptor(), address.get(), Vela::UnixAddress::size()) == 0) {
    return made;
  }
  *error = errno;
  return {};
} catch (const std::system_error& e) {
  *error = e.code().value();
  return {};
}

}  // namespace Lattice
