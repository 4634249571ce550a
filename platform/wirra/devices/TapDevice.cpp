// The device has a queue for each attached process, and the kernel puts packets sent out of the
// device into any of these queues. Nobody reads ours: it stays detached until we write to it, and
// is emptied at each write from then on.
#include <fcntl.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include "platform/wirra/devices/InterfaceOperations.h"

namespace Wirra {

namespace {

[[noreturn]] void fail(const std::string& name, int descriptor, int error) {
  if (descriptor >= 0) close(descriptor);
  throw std::system_error(error, std::generic_category(),
                          "cannot make the network device " + name + " as a TAP");
}

int attachQueue(int descriptor, bool attached) {
  ifreq request{};
  request.ifr_flags = attached ? IFF_ATTACH_QUEUE : IFF_DETACH_QUEUE;
  return ioctl(descriptor, TUNSETQUEUE, &request);
}

}  // namespace

TapDevice::TapDevice(const std::string& name) : name_(name) {
  ifreq request{};
  if (name.empty() || name.size() >= sizeof request.ifr_name) fail(name, -1, EINVAL);
  name.copy(request.ifr_name, sizeof request.ifr_name - 1);
  request.ifr_flags = IFF_TAP | IFF_NO_PI | IFF_MULTI_QUEUE;
  const int descriptor = open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC);
  if (descriptor < 0) fail(name, descriptor, errno);
  if (ioctl(descriptor, TUNSETIFF, &request) != 0) fail(name, descriptor, errno);
  if (attachQueue(descriptor, false) != 0) fail(name, descriptor, errno);
  descriptor_ = descriptor;
}

TapDevice::~TapDevice() { close(descriptor_); }

Vela::Outcome TapDevice::packetIs(const void* bytes, size_t size) {
  if (!attached_ && attachQueue(descriptor_, true) == 0) attached_ = true;
  if (++written_ % 16 == 0) emptyQueue();
  if (write(descriptor_, bytes, size) == static_cast<ssize_t>(size)) return {};
  return Vela::Outcome::failure("cannot give a packet to the network device " + name_ + ": " +
                                (errno == EIO ? "it is down" : std::strerror(errno)));
}

void TapDevice::emptyQueue() {
  if (!attached_) return;
  uint8_t beginning[64];  // the rest of a packet goes with it
  for (int i = 0; i < 64 && read(descriptor_, beginning, sizeof beginning) >= 0; ++i) {
  }
}

}  // namespace Wirra
