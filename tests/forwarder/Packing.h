// Packs keys, values and packets for the forwarder's tests, the way rows hold them.
#pragma once

#include <arpa/inet.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "platform/lattice/types/IpGenPrefix.h"
#include "platform/lattice/types/TableType.h"

namespace ForwarderTest {

inline std::string big(uint64_t number, size_t size) {
  std::string bytes(size, '\0');
  for (size_t i = size; i > 0; number >>= 8) bytes[--i] = static_cast<char>(number);
  return bytes;
}

inline std::string little(uint64_t number, size_t size) {
  std::string bytes(size, '\0');
  for (size_t i = 0; i < size; number >>= 8) bytes[i++] = static_cast<char>(number);
  return bytes;
}

inline std::string prefix(const char* address, unsigned length) {
  Lattice::IpGenPrefix prefix;
  const bool v6 = std::strchr(address, ':');
  prefix.family = v6 ? Lattice::IpGenPrefix::ipv6 : Lattice::IpGenPrefix::ipv4;
  prefix.length = static_cast<uint8_t>(length);
  inet_pton(v6 ? AF_INET6 : AF_INET, address, prefix.address.data());
  return {reinterpret_cast<const char*>(&prefix), sizeof prefix};
}

inline std::shared_ptr<const Lattice::TableType> typeOf(const char* definition) {
  return Lattice::TableType::compile("test_type", definition);
}

}  // namespace ForwarderTest
