#include "PI/server/ListenAddress.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>
#include <system_error>

namespace pi::server {
namespace {

struct HostPort {
  std::string host;
  std::string port;
};

std::optional<HostPort> parsed(const std::string& address) {
  const size_t colon = address.rfind(':');
  if (colon == std::string::npos || colon == 0) return std::nullopt;
  HostPort out{address.substr(0, colon), address.substr(colon + 1)};
  if (out.host.front() == '[' && out.host.back() == ']') {
    out.host = out.host.substr(1, out.host.size() - 2);
  } else if (out.host.find_first_of(":[]") != std::string::npos) {
    return std::nullopt;  // IPv6 without brackets: where does the port begin?
  }
  unsigned number = 0;
  const char* const end = out.port.data() + out.port.size();
  const auto [rest, error] = std::from_chars(out.port.data(), end, number);
  if (error != std::errc() || rest != end || number > 65535) return std::nullopt;
  return out;
}

void portIs(sockaddr_storage* address, uint16_t port) {
  if (address->ss_family == AF_INET6) {
    reinterpret_cast<sockaddr_in6*>(address)->sin6_port = htons(port);
  } else {
    reinterpret_cast<sockaddr_in*>(address)->sin_port = htons(port);
  }
}

// A failure leaves the socket closed, and -1.
int closedWith(int fd, int* error) {
  *error = errno;
  if (fd >= 0) close(fd);
  return -1;
}

// `port`: 0 means the port of the address.
int listeningSocket(addrinfo info, int backlog, uint16_t port, int* error) {
  sockaddr_storage address{};
  std::memcpy(&address, info.ai_addr, info.ai_addrlen);
  if (port != 0) portIs(&address, port);
  const int fd = socket(info.ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return closedWith(fd, error);
  const int on = 1;  // connections of a former server do not count
  const int off = 0;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (info.ai_family == AF_INET6) setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), info.ai_addrlen) != 0 ||
      listen(fd, backlog) != 0) {
    return closedWith(fd, error);
  }
  return fd;
}

std::string wayOut(int error) {
  switch (error) {
    case EADDRINUSE:
      return "address in use; choose another port";
    case EADDRNOTAVAIL:
      return "no interface has this address; choose an address of this machine";
    case EACCES:
      return "permission denied; choose a port above 1023";
    case EMFILE:
    case ENFILE:
      return "no descriptor left; raise the limit of open files";
    default:
      return std::generic_category().message(error) + "; choose another address";
  }
}

using Addresses = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

// Throws std::runtime_error; `cannot` begins its line.
Addresses addressesOf(const std::string& address, const std::string& cannot) {
  const auto hostPort = parsed(address);
  if (!hostPort) {
    throw std::runtime_error(cannot + "not an address; write it as 127.0.0.1:9559 or [::]:9559");
  }
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  const int failed = getaddrinfo(hostPort->host.c_str(), hostPort->port.c_str(), &hints, &found);
  if (failed) {
    throw std::runtime_error(cannot + gai_strerror(failed) +
                             "; write it as 127.0.0.1:9559 or [::]:9559");
  }
  return {found, &freeaddrinfo};
}

}  // namespace

int portOf(int socket) {
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  if (getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size) != 0) return 0;
  const in_port_t port = address.ss_family == AF_INET6
                             ? reinterpret_cast<sockaddr_in6*>(&address)->sin6_port
                             : reinterpret_cast<sockaddr_in*>(&address)->sin_port;
  return ntohs(port);
}

// A name may mean addresses that this machine does not have, such as ::1 without IPv6: one is
// enough. All get the port that the first one got.
std::vector<int> listeningSockets(const std::string& address, int backlog) {
  const std::string cannot = "cannot listen on " + address + ": ";
  const Addresses addresses = addressesOf(address, cannot);
  std::vector<int> sockets;
  int firstError = 0;
  for (const addrinfo* one = addresses.get(); one; one = one->ai_next) {
    int error = 0;
    const uint16_t port = sockets.empty() ? 0 : portOf(sockets.front());
    const int fd = listeningSocket(*one, backlog, port, &error);
    if (fd >= 0) sockets.push_back(fd);
    if (fd < 0 && firstError == 0) firstError = error;
    if (error == EADDRINUSE && sockets.empty()) break;
  }
  if (sockets.empty()) throw std::runtime_error(cannot + wayOut(firstError));
  return sockets;
}

}  // namespace pi::server
