// Makes kernel devices, brings them up and takes them down. Needs CAP_NET_ADMIN.
#pragma once

#include <cstddef>
#include <string>

#include "platform/vela/Outcome.h"
#include "platform/vela/Ptr.h"

namespace Wirra {

// Failures name the device. Any thread; each call asks the kernel again.
class InterfaceOperations final : public Vela::RefCounted {
 public:
  // `mac` "": as it is. `keepConfigured` true: addresses and the like that the kernel has given to
  // the device stay; false: it gets no IPv6 link-local address, so that the kernel itself sends
  // nothing through it.
  Vela::Outcome up(const std::string& device, const std::string& mac, bool keepConfigured);
  Vela::Outcome down(const std::string& device);
  // The kernel gives the device no IPv6 link-local address, so that it sends nothing of its own
  // through it; for a device that is not up yet.
  Vela::Outcome keepSilent(const std::string& device);
  Vela::Outcome mtuIs(const std::string& device, unsigned mtu);
};

// A TAP device that this process keeps. Other processes may attach to it, too, and write packets
// that the device then receives. The device lives as long as a process is attached.
class TapDevice final {
 public:
  // Makes it, or attaches to the one that is there. Throws std::system_error: no permission, or a
  // device of that name that is no TAP.
  explicit TapDevice(const std::string& name);
  ~TapDevice();
  TapDevice(const TapDevice&) = delete;
  TapDevice& operator=(const TapDevice&) = delete;

  // The device receives the packet. Fails while it is down.
  Vela::Outcome packetIs(const void* bytes, size_t size);
  // Throws away packets that were sent out of the device into our queue. packetIs() does so, too,
  // once in a while.
  void emptyQueue();

 private:
  const std::string name_;
  int descriptor_ = -1;
  bool attached_ = false;  // our queue is one of the device's
  unsigned written_ = 0;
};

}  // namespace Wirra
