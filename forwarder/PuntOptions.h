// What is punted to the controller, and what became of it.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "forwarder/PuntHeader.h"

namespace Forwarder {

// A plain value.
struct PuntOptions {
  bool mapped = false;                    // what arrives on the ports that the agent maps
  std::map<uint32_t, std::string> ports;  // port id -> device; goes before the agent's mapping
  std::set<uint16_t> etherTypes;          // only these; empty: all
  std::string device;                     // to send on; "": into the TAP p4controller
  PuntValues values;                      // of packet_in's fields

  bool listens() const { return mapped || !ports.empty(); }
};

// Packets that the forwarder makes by itself. A plain value.
struct PuntRequest {
  uint32_t port = 0;
  std::string packet;
  bool numbered = false;  // has a number from 0 in 8 bytes, big-endian, at numberOffset
  uint64_t count = 1;
  uint64_t rate = 0;  // packets a second; 0: as fast as it goes
};
constexpr size_t numberOffset = 14;  // after the Ethernet header

// Counted by the punting thread, read by others.
struct PuntCounts {
  using Count = std::atomic<uint64_t>;
  Count arrived{0};   // on ports
  Count made{0};      // on request
  Count punted{0};    // received by the controller's device
  Count filtered{0};  // not of the EtherTypes that are asked for
  Count missed{0};    // came faster than they were read
  // Dropped:
  Count tooLong{0};   // for the forwarder, or for the device's MTU
  Count noHeader{0};  // what the agent says of packet_in is not known, or the port does not fit it
  Count noDevice{0};  // the controller's device is not there, or down
  Count failed{0};    // the kernel refused it for another reason

  std::string text() const;  // lines, each ended
};

}  // namespace Forwarder
