// An rtnetlink socket that reads network devices.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "platform/wirra/devices/LinkMessage.h"

struct nl_sock;

namespace Wirra {

struct NetlinkSocketFree {
  void operator()(nl_sock* socket) const;
};
using NetlinkSocket = std::unique_ptr<nl_sock, NetlinkSocketFree>;

// Connected to the kernel. Throws std::system_error.
NetlinkSocket routeSocket();

// All devices at one instant. Throws std::system_error.
std::vector<Link> allLinks();

// Follows the devices. Never blocks.
class LinkEvents final {
 public:
  LinkEvents();  // throws std::system_error
  int descriptor() const;
  // Appends the events, oldest first, at most `most`, to `links`. False: events were lost, those
  // that waited included; ask for all devices.
  bool read(size_t most, std::vector<Link>* links);

 private:
  void discard();
  NetlinkSocket socket_;
};

}  // namespace Wirra
