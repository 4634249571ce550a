// Checksums that a sending kernel leaves to hardware which a virtual wire does not have.
#pragma once

#include <cstdint>
#include <span>

namespace Wirra {

// Completes the checksum of a TCP or UDP packet over IPv4 or IPv6, with VLAN tags or not, whose
// field holds the sum of the pseudo header. Anything else stays as it is.
void completeChecksum(std::span<uint8_t> packet);

}  // namespace Wirra
