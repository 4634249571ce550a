#include "PI/server/Listener.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "PI/server/Limits.h"
#include "PI/server/ListenAddress.h"
#include "PI/server/Thread.h"

namespace pi::server {
namespace {

constexpr int kBacklog = 512;
constexpr int kPauseMs = 50;  // when nothing can be accepted at all

int anyDescriptor() { return open("/dev/null", O_RDONLY | O_CLOEXEC); }

uint64_t inodeOf(int fd) {
  struct stat status {};
  return fstat(fd, &status) == 0 ? status.st_ino : 0;
}

// Half of the process's descriptors is left for all that is no connection.
size_t connectionLimit() {
  rlimit descriptors{};
  if (getrlimit(RLIMIT_NOFILE, &descriptors) != 0) return limits().connections;
  return std::min<size_t>(limits().connections, descriptors.rlim_cur / 2);
}

// Of the connection's other end.
std::array<uint8_t, 16> machineOf(int fd) {
  std::array<uint8_t, 16> machine{};
  sockaddr_storage storage{};
  socklen_t size = sizeof storage;
  if (getpeername(fd, reinterpret_cast<sockaddr*>(&storage), &size) != 0) return machine;
  in6_addr address{};
  if (storage.ss_family == AF_INET) {
    address.s6_addr[10] = address.s6_addr[11] = 0xff;
    std::memcpy(&address.s6_addr[12], &reinterpret_cast<sockaddr_in&>(storage).sin_addr, 4);
  } else if (storage.ss_family == AF_INET6) {
    address = reinterpret_cast<sockaddr_in6&>(storage).sin6_addr;
  }
  const bool isV4 = IN6_IS_ADDR_V4MAPPED(&address);
  if (IN6_IS_ADDR_LOOPBACK(&address) || (isV4 && address.s6_addr[12] == 127)) return machine;
  std::memcpy(machine.data(), &address, isV4 ? 16 : 8);  // who has a /64 has all its addresses
  return machine;
}

bool isShortage(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

}  // namespace

Listener::Listener(const std::string& address, int unixSocket) {
  if (!address.empty() || unixSocket < 0) {
    sockets_ = listeningSockets(address, kBacklog);
    port_ = portOf(sockets_.front());
  }
  polled_ = sockets_;
  if (unixSocket >= 0) polled_.push_back(unixSocket);
  wakeFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  reserveFd_ = anyDescriptor();
  if (wakeFd_ >= 0) return;
  close();
  throw std::runtime_error("cannot listen on " + address +
                           ": no descriptor left; raise the limit of open files");
}

Listener::~Listener() {
  stop();
  close();
}

void Listener::close() {
  for (const int socket : sockets_) ::close(socket);
  if (wakeFd_ >= 0) ::close(wakeFd_);
  if (reserveFd_ >= 0) ::close(reserveFd_);
}

void Listener::start(Handler handler) {
  handler_ = std::move(handler);
  thread_ = startThread([this] { run(); });
}

void Listener::stop() {
  if (!thread_.joinable()) return;
  const uint64_t one = 1;
  while (write(wakeFd_, &one, sizeof one) < 0 && errno == EINTR) {
  }
  thread_.join();
}

void Listener::run() {
  while (waitForConnections()) {
    for (const int socket : polled_) acceptFrom(socket);
  }
}

// False: to stop.
bool Listener::waitForConnections() {
  std::vector<pollfd> polled{{wakeFd_, POLLIN, 0}};
  for (const int socket : polled_) polled.push_back({socket, POLLIN, 0});
  while (poll(polled.data(), polled.size(), -1) < 0) {
    if (errno != EINTR) poll(polled.data(), 1, kPauseMs);
  }
  return polled.front().revents == 0;
}

void Listener::acceptFrom(int socket) {
  for (int i = 0; i < kBacklog; ++i) {
    const int fd = accept4(socket, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd >= 0) {
      take(socket, fd);
    } else if (isShortage(errno)) {
      return refuseWithReserve(socket);
    } else if (errno == EAGAIN || errno == EBADF || errno == EINVAL) {
      return;
    }  // else this one connection has failed
  }
}

void Listener::take(int listenerFd, int fd) {
  const Machine machine = machineOf(fd);
  if (!hasRoom() || !hasShare(machine) || !isInPace(listenerFd, machine)) {
    refuse(fd);
    return;
  }
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  connections_.push_back({fd, inodeOf(fd), machine});
  handler_(listenerFd, fd);
}

// Counts first, so that a client that sees the connection closed finds it counted.
void Listener::refuse(int fd) {
  refused_.fetch_add(1);
  ::close(fd);
}

// gRPC closes the connections without a word: one has ended when its descriptor is gone, or is
// another file's by now.
bool Listener::hasRoom() {
  const size_t limit = connectionLimit();
  if (connections_.size() >= limit) forgetEnded();
  return connections_.size() < limit;
}

// So that no machine keeps all others out.
bool Listener::hasShare(const Machine& machine) {
  if (machine == Machine{}) return true;
  const size_t limit = connectionLimit();
  const auto fits = [&] {
    const auto own = std::count_if(connections_.begin(), connections_.end(),
                                   [&](const Connection& one) { return one.machine == machine; });
    return static_cast<size_t>(own) < limit - limit / 4;
  };
  if (fits()) return true;
  forgetEnded();
  return fits();
}

// The socket's permissions say who gets at it.
bool Listener::isInPace(int listenerFd, const Machine& machine) {
  const bool isTcp = std::ranges::find(sockets_, listenerFd) != sockets_.end();
  return !isTcp || pace_.take(machine, ConnectionPace::Clock::now());
}

void Listener::forgetEnded() {
  std::erase_if(connections_, [](const Connection& one) { return inodeOf(one.fd) != one.inode; });
}

// The other end hears at once that it is not served, and the backlog does not fill.
void Listener::refuseWithReserve(int socket) {
  pollfd wake{wakeFd_, POLLIN, 0};
  if (reserveFd_ < 0) reserveFd_ = anyDescriptor();
  if (reserveFd_ < 0) {
    poll(&wake, 1, kPauseMs);
    return;
  }
  ::close(std::exchange(reserveFd_, -1));
  const int fd = accept4(socket, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (fd >= 0) {
    refuse(fd);
  } else {
    poll(&wake, 1, kPauseMs);
  }
  reserveFd_ = anyDescriptor();
}

}  // namespace pi::server
