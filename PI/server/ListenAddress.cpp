#include "PI/server/ListenAddress.h"

#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <memory>
#include <optional>
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

// 0 when bound; the error otherwise.
int bindError(const addrinfo& info) {
  const int fd = socket(info.ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return errno;
  const int on = 1;  // as gRPC sets it: connections of a former server do not count
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  const int error = bind(fd, info.ai_addr, info.ai_addrlen) == 0 ? 0 : errno;
  close(fd);
  return error;
}

std::string wayOut(int error) {
  switch (error) {
    case EADDRINUSE:
      return "address in use; choose another port";
    case EADDRNOTAVAIL:
      return "no interface has this address; choose an address of this machine";
    case EACCES:
      return "permission denied; choose a port above 1023";
    default:
      return std::generic_category().message(error) + "; choose another address";
  }
}

}  // namespace

std::string listenObstacle(const std::string& address) {
  if (address.rfind("unix:", 0) == 0 || address.rfind("unix-abstract:", 0) == 0) return "";
  const std::string cannot = "cannot listen on " + address + ": ";
  const auto hostPort = parsed(address);
  if (!hostPort) {
    return cannot + "not an address; write it as 127.0.0.1:9559 or [::]:9559";
  }
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  const int failed = getaddrinfo(hostPort->host.c_str(), hostPort->port.c_str(), &hints, &found);
  if (failed) {
    return cannot + gai_strerror(failed) + "; write it as 127.0.0.1:9559 or [::]:9559";
  }
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, &freeaddrinfo);
  const int error = bindError(*found);
  return error ? cannot + wayOut(error) : "";
}

}  // namespace pi::server
