#include "platform/wirra/packets/Checksum.h"

#include <linux/if_ether.h>
#include <netinet/in.h>

#include <optional>

namespace Wirra {

namespace {

unsigned read16(std::span<const uint8_t> bytes, size_t at) {
  return bytes[at] << 8 | bytes[at + 1];
}

struct Transport {
  size_t begin = 0;
  size_t end = 0;  // padding of a short packet is not part of it
  uint8_t protocol = 0;
};

std::optional<Transport> ipv4(std::span<const uint8_t> packet, size_t at) {
  if (packet.size() < at + 20) return std::nullopt;
  if (read16(packet, at + 6) & 0x3fff) return std::nullopt;  // a fragment
  return Transport{at + (packet[at] & 15u) * 4, at + read16(packet, at + 2), packet[at + 9]};
}

std::optional<Transport> ipv6(std::span<const uint8_t> packet, size_t at) {
  if (packet.size() < at + 40) return std::nullopt;
  return Transport{at + 40, at + 40 + read16(packet, at + 4), packet[at + 6]};
}

std::optional<Transport> transport(std::span<const uint8_t> packet) {
  for (size_t at = 2 * ETH_ALEN; at + 4 <= packet.size(); at += 4) {
    switch (read16(packet, at)) {
      case ETH_P_8021Q:
      case ETH_P_8021AD:
        continue;
      case ETH_P_IP:
        return ipv4(packet, at + 2);
      case ETH_P_IPV6:
        return ipv6(packet, at + 2);
      default:
        return std::nullopt;
    }
  }
  return std::nullopt;
}

uint16_t sum(std::span<const uint8_t> bytes) {
  uint64_t total = 0;
  size_t at = 0;
  for (; at + 2 <= bytes.size(); at += 2) total += read16(bytes, at);
  if (at < bytes.size()) total += bytes[at] << 8;
  while (total >> 16) total = (total & 0xffff) + (total >> 16);
  return static_cast<uint16_t>(total);
}

}  // namespace

void completeChecksum(std::span<uint8_t> packet) {
  const auto found = transport(packet);
  if (!found || (found->protocol != IPPROTO_TCP && found->protocol != IPPROTO_UDP)) return;
  const size_t field = found->begin + (found->protocol == IPPROTO_TCP ? 16 : 6);
  if (found->end > packet.size() || field + 2 > found->end) return;
  uint16_t checksum = ~sum(packet.subspan(found->begin, found->end - found->begin));
  if (checksum == 0 && found->protocol == IPPROTO_UDP)
    checksum = 0xffff;  // 0 would mean no checksum
  packet[field] = static_cast<uint8_t>(checksum >> 8);
  packet[field + 1] = static_cast<uint8_t>(checksum);
}

}  // namespace Wirra
