// Writes a packet's headers and payload as they leave the switch.
#pragma once

#include "p4/compile/Image.h"
#include "p4/execute/Packet.h"

namespace P4 {

// How much room deparse() may want.
size_t mostBytesOf(const Image& image, const Packet& packet);
// Returns how many bytes it has written.
size_t deparse(const Image& image, const Packet& packet, uint8_t* to);

}  // namespace P4
