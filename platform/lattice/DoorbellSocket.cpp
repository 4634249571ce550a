#include "platform/lattice/DoorbellSocket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace Lattice {
namespace {

// A socket's address holds about a hundred bytes of path; a longer one goes through the directory's
// descriptor.
class Address {
 public:
  explicit Address(const std::string& path) {
    address_.sun_family = AF_UNIX;
    std::string shown = path;
    if (path.size() >= sizeof address_.sun_path) {
      const std::filesystem::path whole(path);
      directory_ = open(whole.parent_path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
      shown = "/proc/self/fd/" + std::to_string(directory_) + "/" + whole.filename().string();
    }
    std::strncpy(address_.sun_path, shown.c_str(), sizeof address_.sun_path - 1);
  }
  ~Address() {
    if (directory_ >= 0) close(directory_);
  }
  Address(const Address&) = delete;
  Address& operator=(const Address&) = delete;
  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address_); }
  static socklen_t size() { return sizeof(sockaddr_un); }

 private:
  sockaddr_un address_{};
  int directory_ = -1;
};

Socket packetSocket() {
  Socket made(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!made) throw std::system_error(errno, std::generic_category(), "cannot create a Unix socket");
  return made;
}

[[noreturn]] void cannotListen(const std::string& path, const std::string& advice) {
  throw std::system_error(errno, std::generic_category(),
                          "cannot listen on " + path + " (" + advice + ")");
}

}  // namespace

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

Socket listeningAt(const std::string& path) {
  const Address address(path);
  Socket listener = packetSocket();
  fchmod(listener.descriptor(), 0600);  // the file takes these on, without a moment of others
  if (bind(listener.descriptor(), address.get(), Address::size()) != 0) {
    if (errno != EADDRINUSE) cannotListen(path, "check the directory's permissions");
    int error = 0;
    if (connectedTo(path, &error)) {
      errno = EADDRINUSE;
      cannotListen(path, "another agent does; stop it or choose another state directory");
    }
    unlink(path.c_str());
    if (bind(listener.descriptor(), address.get(), Address::size()) != 0) {
      cannotListen(path, "remove what is there");
    }
  }
  chmod(path.c_str(), 0600);
  if (listen(listener.descriptor(), 64) != 0) cannotListen(path, "remove what is there");
  return listener;
}

Socket connectedTo(const std::string& path, int* error) {
  const Address address(path);
  Socket made = packetSocket();
  if (connect(made.descriptor(), address.get(), Address::size()) == 0) return made;
  *error = errno;
  return {};
}

bool peerMayAttach(int descriptor, int* pid) {
  ucred credentials{};
  socklen_t size = sizeof credentials;
  if (getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) return false;
  *pid = credentials.pid;
  return credentials.uid == geteuid() || credentials.uid == 0;
}

}  // namespace Lattice
