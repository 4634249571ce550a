// The VLAN tag that the kernel takes off a frame and reports beside it.
#pragma once

#include <arpa/inet.h>
#include <linux/if_ether.h>

#include <cstdint>
#include <cstring>

#include "forwarder/device/Frames.h"

namespace Forwarder {

// Puts the tag back behind the addresses; four bytes before the frame are free. Both numbers are in
// host byte order; protocol 0: the kernel did not tell, so that it is a C-VLAN.
inline void putTagBack(Frame& frame, uint16_t protocol, uint16_t control) {
  const uint16_t tag[] = {htons(protocol ? protocol : ETH_P_8021Q), htons(control)};
  constexpr size_t addresses = 2 * ETH_ALEN;
  if (frame.size < addresses) return;
  std::memmove(frame.start - sizeof tag, frame.start, addresses);
  frame.start -= sizeof tag;
  frame.size += sizeof tag;
  std::memcpy(frame.start + addresses, tag, sizeof tag);
}

}  // namespace Forwarder
