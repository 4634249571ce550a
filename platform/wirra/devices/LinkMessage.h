// A network device as an rtnetlink message describes it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

struct nlmsghdr;

namespace Wirra {

struct Link {
  bool removed = false;  // then only the index counts
  uint32_t index = 0;
  std::string name;
  bool adminUp = false;
  bool operUp = false;
  bool loopback = false;
  uint32_t mtu = 0;
  std::string mac;   // "00:11:22:33:44:55"; "" for other than Ethernet
  std::string kind;  // "veth", "tun", ...
  uint32_t vrfTable = 0;
};

// Nothing for a message that does not describe a whole device: a bridge's message on one of its
// ports, a wireless event.
std::optional<Link> linkOf(const nlmsghdr& message);

}  // namespace Wirra
