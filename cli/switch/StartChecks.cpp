#include "cli/switch/StartChecks.h"

#include <fmt/format.h>
#include <linux/capability.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "platform/vela/Descriptors.h"
#include "platform/vela/Json.h"

namespace {

// Of this process, a bit each.
uint64_t effectiveCapabilities() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("CapEff:")) return std::stoull(line.substr(7), nullptr, 16);
  }
  return ~uint64_t{0};  // not known: the kernel decides later
}

void requireRights(const SwitchOptions& options) {
  if (options.interfaces.empty() && !options.cpuPort) return;
  const uint64_t needed = uint64_t{1} << CAP_NET_ADMIN | uint64_t{1} << CAP_NET_RAW;
  if ((effectiveCapabilities() & needed) == needed) return;
  throw std::runtime_error(
      "a switch with ports needs the rights of root over the network (CAP_NET_ADMIN and "
      "CAP_NET_RAW): start it with sudo");
}

void requireTap(const SwitchOptions& options) {
  const char* tun = "/dev/net/tun";
  if (!options.cpuPort || access(tun, R_OK | W_OK) == 0) return;
  throw std::runtime_error(
      fmt::format("packets from and to controllers need {}: {}; 'modprobe tun' makes it, or leave "
                  "out --cpu-port",
                  tun, std::strerror(errno)));
}

void requireProgram(const std::string& file) {
  errno = 0;
  std::ifstream stream(file, std::ios::binary);
  const std::string text((std::istreambuf_iterator<char>(stream)),
                         std::istreambuf_iterator<char>());
  if (!stream.is_open() || stream.bad()) {
    throw UsageError(
        fmt::format("cannot read the program {}: {}", file, std::strerror(errno ? errno : EIO)));
  }
  size_t line = 0;
  const Vela::Json json = Vela::parseJson(text, &line);
  if (json && cJSON_IsObject(json.get())) return;
  const std::string place = json ? "" : fmt::format(", line {}", line);
  throw UsageError(fmt::format(
      "{}{} is no compiled program; give the JSON that the P4 compiler wrote for v1model", file,
      place));
}

}  // namespace

void requireStartable(const SwitchOptions& options) {
  if (!options.program.empty()) requireProgram(options.program);
  requireRights(options);
  requireTap(options);
}

void requireListening(const ServerAddress& address) {
  addrinfo hints{};
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const std::string port = std::to_string(address.port);
  if (getaddrinfo(address.host.c_str(), port.c_str(), &hints, &found) != 0) return;
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, freeaddrinfo);
  const Vela::UniqueFd socket(::socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int on = 1;  // ignore connections of a former server
  setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (bind(socket.get(), found->ai_addr, found->ai_addrlen) == 0 && listen(socket.get(), 1) == 0) {
    return;
  }
  const bool isInUse = errno == EADDRINUSE;
  throw std::runtime_error(fmt::format("cannot listen on {}: {}; choose another --grpc-server-addr",
                                       address.text,
                                       isInUse ? "the port is in use" : std::strerror(errno)));
}
