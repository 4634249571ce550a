// See NetworkNamespace.h.
#include "tests/support/NetworkNamespace.h"

#include <fmt/format.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "tests/support/Process.h"

namespace TestSupport {
namespace {

bool written(const std::string& path, const std::string& text) {
  std::ofstream file(path);
  return static_cast<bool>(file << text << std::flush);
}

}  // namespace

std::string enteredNetworkNamespace() {
  if (unshare(CLONE_NEWNET) != 0) {
    return fmt::format("no network namespace: {}; run as root", std::strerror(errno));
  }
  for (const char* which : {"all", "default"}) {
    written(fmt::format("/proc/sys/net/ipv6/conf/{}/disable_ipv6", which), "1");
  }
  try {
    deviceUpIs("lo", true);
  } catch (const std::exception& e) {
    return e.what();
  }
  return "";
}

void ip(const std::string& arguments) {
  std::vector<std::string> command{"ip"};
  std::istringstream words(arguments);
  for (std::string word; words >> word;) command.push_back(word);
  const CommandResult result = run(command);
  if (result.exit.code != 0) throw std::runtime_error("ip " + arguments + ": " + result.error);
}

void deviceUpIs(const std::string& device, bool up) {
  const int descriptor = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
  ifreq request{};
  device.copy(request.ifr_name, IFNAMSIZ - 1);
  bool done = descriptor >= 0 && ioctl(descriptor, SIOCGIFFLAGS, &request) == 0;
  if (up) {
    request.ifr_flags |= IFF_UP;
  } else {
    request.ifr_flags &= static_cast<short>(~IFF_UP);
  }
  done = done && ioctl(descriptor, SIOCSIFFLAGS, &request) == 0;
  const int error = errno;
  if (descriptor >= 0) close(descriptor);
  if (!done) throw std::runtime_error(fmt::format("{}: {}", device, std::strerror(error)));
}

VethPair::VethPair(std::string name, std::string peer, unsigned mtuBytes)
    : name_(std::move(name)), peer_(std::move(peer)), mtuBytes_(mtuBytes) {
  made();
}

VethPair::~VethPair() {
  try {
    deleted();
  } catch (const std::exception&) {
    // A test has deleted it; the namespace takes the rest along.
  }
}

void VethPair::made() const {
  ip(fmt::format("link add {} mtu {} type veth peer name {} mtu {}", name_, mtuBytes_, peer_,
                 mtuBytes_));
  deviceUpIs(name_, true);
  deviceUpIs(peer_, true);
}

void VethPair::deleted() const { ip("link del " + name_); }

void VethPair::remade() {
  deleted();
  made();
}

}  // namespace TestSupport
