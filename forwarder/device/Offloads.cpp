#include "forwarder/device/Offloads.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstring>

namespace Forwarder {
namespace {

constexpr uint8_t kindTcp4 = 1;
constexpr uint8_t kindTcp6 = 4;
constexpr uint8_t kindUdp = 5;
constexpr uint8_t kindEcn =
    0x80;  // beside a kind of TCP: only the first segment tells of congestion

constexpr size_t ipv4Bytes = 20;
constexpr size_t ipv6Bytes = 40;
constexpr size_t udpBytes = 8;
constexpr size_t tcpBytes = 20;
constexpr size_t tcpChecksum = 16;
constexpr size_t udpChecksum = 6;
constexpr uint8_t tcpFin = 0x01;
constexpr uint8_t tcpPush = 0x08;
constexpr uint8_t tcpCongestionReduced = 0x80;

uint16_t word(const uint8_t* at) { return static_cast<uint16_t>(at[0] << 8 | at[1]); }

void putWord(uint8_t* at, size_t value) {
  at[0] = static_cast<uint8_t>(value >> 8);
  at[1] = static_cast<uint8_t>(value);
}

// The sum of 16-bit words in network order, folded to 16 bits. Words in host order give the same
// sum with its bytes swapped, so that four bytes can be added at once.
uint16_t sumOf(const uint8_t* bytes, size_t size) {
  uint64_t total = 0;
  for (; size >= 4; bytes += 4, size -= 4) {
    uint32_t four;
    std::memcpy(&four, bytes, sizeof four);
    total += four;
  }
  uint32_t rest = 0;
  std::memcpy(&rest, bytes, size);
  total += rest;
  while (total >> 16) total = (total & 0xffff) + (total >> 16);
  return ntohs(static_cast<uint16_t>(total));
}

uint16_t folded(uint32_t sum) {
  while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
  return static_cast<uint16_t>(sum);
}

// Behind the addresses and VLAN tags; 0: the frame ends before.
size_t networkHeader(const Frame& frame, uint16_t& protocol) {
  for (size_t at = 2 * ETH_ALEN; at + 2 <= frame.size; at += 4) {
    protocol = word(frame.start + at);
    if (protocol != ETH_P_8021Q && protocol != ETH_P_8021AD) return at + 2;
  }
  return 0;
}

}  // namespace

bool completeChecksum(const Frame& frame, const OffloadHeader& offloads) {
  const size_t field = size_t{offloads.checksumStart} + offloads.checksumOffset;
  if (field + 2 > frame.size || offloads.checksumStart > frame.size) return false;
  const auto sum = static_cast<uint16_t>(
      ~sumOf(frame.start + offloads.checksumStart, frame.size - offloads.checksumStart));
  putWord(frame.start + field, sum ? sum : 0xffff);  // 0 would mean no checksum in UDP
  return true;
}

Segments::Segments(const Frame& whole, const OffloadHeader& offloads)
    : whole_(whole), segmentBytes_(offloads.segmentBytes) {
  valid_ = findHeaders(offloads);
  at_ = payload_;
}

bool Segments::findHeaders(const OffloadHeader& offloads) {
  const uint8_t kind = offloads.kind & static_cast<uint8_t>(~kindEcn);
  if (kind != kindTcp4 && kind != kindTcp6 && kind != kindUdp) return false;
  tcp_ = kind != kindUdp;
  uint16_t protocol = 0;
  network_ = networkHeader(whole_, protocol);
  transport_ = offloads.checksumStart;
  if (!network_ || !offloads.checksumWanted() || segmentBytes_ == 0) return false;
  if (transport_ + (tcp_ ? tcpBytes : udpBytes) > whole_.size) return false;
  version6_ = protocol == ETH_P_IPV6;
  if (version6_) {
    // Extension headers may stand between, but not another packet's headers.
    if (network_ + ipv6Bytes > transport_) return false;
  } else {
    if (protocol != ETH_P_IP || network_ + ipv4Bytes > transport_) return false;
    if (network_ + (whole_.start[network_] & 15u) * 4 != transport_) return false;
  }
  payload_ = transport_ + (tcp_ ? (whole_.start[transport_ + 12] >> 4) * 4u : udpBytes);
  return payload_ >= transport_ + (tcp_ ? tcpBytes : udpBytes) && payload_ < whole_.size;
}

size_t Segments::next(uint8_t* to) {
  if (at_ >= whole_.size) return 0;
  const size_t some = std::min(segmentBytes_, whole_.size - at_);
  const size_t size = payload_ + some;
  std::memcpy(to, whole_.start, payload_);
  std::memcpy(to + payload_, whole_.start + at_, some);
  fixNetwork(to, size);
  fixTransport(to, size, at_ + some == whole_.size);
  at_ += some;
  ++number_;
  return size;
}

void Segments::fixNetwork(uint8_t* to, size_t size) const {
  uint8_t* const header = to + network_;
  if (version6_) {
    putWord(header + 4, size - network_ - ipv6Bytes);
    return;
  }
  putWord(header + 2, size - network_);
  putWord(header + 4, word(header + 4) + number_);  // identification
  putWord(header + 10, 0);
  putWord(header + 10, static_cast<uint16_t>(~sumOf(header, transport_ - network_)));
}

// The field of the whole frame holds the sum of its pseudo header, in which the length changes.
void Segments::fixTransport(uint8_t* to, size_t size, bool last) const {
  uint8_t* const header = to + transport_;
  const size_t field = tcp_ ? tcpChecksum : udpChecksum;
  const auto formerLength = static_cast<uint16_t>(whole_.size - transport_);
  const auto length = static_cast<uint16_t>(size - transport_);
  const uint32_t pseudo = word(header + field) + uint16_t(~formerLength) + uint32_t{length};
  putWord(header + field, folded(pseudo));
  if (tcp_) {
    uint32_t sequence;
    std::memcpy(&sequence, header + 4, sizeof sequence);
    sequence = htonl(ntohl(sequence) + number_ * static_cast<uint32_t>(segmentBytes_));
    std::memcpy(header + 4, &sequence, sizeof sequence);
    if (!last) header[13] &= static_cast<uint8_t>(~(tcpFin | tcpPush));
    if (number_ > 0) header[13] &= static_cast<uint8_t>(~tcpCongestionReduced);
  } else {
    putWord(header + 4, length);
  }
  const auto sum = static_cast<uint16_t>(~sumOf(header, size - transport_));
  putWord(header + field, sum || tcp_ ? sum : 0xffff);
}

}  // namespace Forwarder
