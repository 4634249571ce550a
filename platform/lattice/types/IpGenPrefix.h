// An IP prefix of either family, as rows hold it.
#pragma once

#include <array>
#include <cstdint>

namespace Lattice {

struct IpGenPrefix {
  static constexpr uint8_t ipv4 = 1;
  static constexpr uint8_t ipv6 = 2;

  uint8_t family = 0;                 // ipv4 or ipv6
  uint8_t length = 0;                 // bits
  std::array<uint8_t, 6> padding{};   // zero
  std::array<uint8_t, 16> address{};  // network order; IPv4 in the first four, the rest zero

  friend bool operator==(const IpGenPrefix&, const IpGenPrefix&) = default;
};
static_assert(sizeof(IpGenPrefix) == 24);

}  // namespace Lattice
