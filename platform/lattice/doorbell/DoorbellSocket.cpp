#include "platform/lattice/doorbell/DoorbellSocket.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "platform/vela/UnixListener.h"

namespace Lattice {

Socket::~Socket() {
  if (descriptor_ >= 0) close(descriptor_);
}

Socket::Sent Socket::send(std::string_view message) const {
  const ssize_t sent = ::send(descriptor_, message.data(), message.size(), MSG_NOSIGNAL);
  if (sent >= 0) return Sent::all;
  const bool later = errno == EAGAIN || errno == ENOBUFS || errno == EINTR || errno == ENOMEM;
  return later ? Sent::wouldBlock : Sent::gone;
}

Socket::Received Socket::receive(std::string& buffer, std::string_view* message) const {
  iovec part{buffer.data(), buffer.size()};
  msghdr header{};
  header.msg_iov = &part;
  header.msg_iovlen = 1;
  const ssize_t got = recvmsg(descriptor_, &header, 0);
  if (got < 0) {
    return errno == EAGAIN || errno == EINTR ? Received::nothing : Received::gone;
  }
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
