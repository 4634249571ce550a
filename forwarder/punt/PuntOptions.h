// What is punted to the controller: packets from ports, and packets made on request.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "forwarder/punt/PuntHeader.h"

namespace Forwarder {

// A plain value.
struct PuntOptions {
  bool mapped = false;                    // packets that arrive on the ports the agent maps
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
  uint64_t rate = 0;  // packets a second; 0: as fast as possible
};
constexpr size_t numberOffset = 14;  // bytes; after the Ethernet header

}  // namespace Forwarder
