#include "P4Runtime/companion/IpAddress.h"

#include <arpa/inet.h>

namespace P4Runtime {

std::optional<IpAddress> IpAddress::fromText(std::string_view text) {
  const std::string candidate(text);
  unsigned char bytes[16];
  if (inet_pton(AF_INET, candidate.c_str(), bytes) != 1 &&
      inet_pton(AF_INET6, candidate.c_str(), bytes) != 1) {
    return std::nullopt;
  }
  IpAddress address;
  address.text_ = candidate;
  return address;
}

}  // namespace P4Runtime
