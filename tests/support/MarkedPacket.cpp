// See MarkedPacket.h.
#include "tests/support/MarkedPacket.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string_view>

namespace TestSupport {
namespace {

constexpr size_t addressBytes = 12;
constexpr char etherType[] = {'\x88', '\xb5'};

// After the Ethernet header, in this machine's byte order; the pattern follows.
struct Head {
  PacketMark mark;
  uint64_t size;
};
constexpr size_t patternAt = addressBytes + sizeof etherType + sizeof(Head);
constexpr size_t patternSpace = 1 << 16;

const std::string& noise() {
  static const std::string bytes = [] {
    std::mt19937 random(1);
    std::string made(2 * patternSpace, '\0');
    std::generate(made.begin(), made.end(), [&] { return static_cast<char>(random()); });
    return made;
  }();
  return bytes;
}

std::string_view pattern(const PacketMark& mark, size_t size) {
  const uint64_t at = mark.sequence * 7919 + mark.port * 104729 + mark.stream * 611953;
  return std::string_view(noise()).substr(at % patternSpace, size);
}

}  // namespace

std::string markedPacket(const PacketMark& mark, size_t size) {
  std::string packet("\x02\x00\x00\x00\x00\x02\x02\x00\x00\x00\x00\x01", addressBytes);
  packet.reserve(size);
  packet.append(etherType, sizeof etherType);
  const Head head{.mark = mark, .size = size};
  packet.append(reinterpret_cast<const char*>(&head), sizeof head);
  return packet.append(pattern(mark, size - packet.size()));
}

std::optional<PacketMark> markOf(std::span<const uint8_t> packet) {
  if (packet.size() < patternAt || packet.size() - patternAt > patternSpace) return std::nullopt;
  Head head;
  std::memcpy(&head, packet.data() + addressBytes + sizeof etherType, sizeof head);
  if (std::memcmp(packet.data() + addressBytes, etherType, sizeof etherType) != 0 ||
      head.size != packet.size()) {
    return std::nullopt;
  }
  const std::string_view expected = pattern(head.mark, packet.size() - patternAt);
  if (std::memcmp(packet.data() + patternAt, expected.data(), expected.size()) != 0) {
    return std::nullopt;
  }
  return head.mark;
}

void PacketChecker::arrived(const PacketMark& mark) {
  const std::lock_guard lock(mutex_);
  Flow& flow = flows_[{mark.stream, mark.port}];
  ++flow.count;
  if (mark.sequence < flow.next) {
    ++(flow.missing.erase(mark.sequence) ? flow.late : flow.twice);
    return;
  }
  for (; flow.next < mark.sequence; ++flow.next) flow.missing.insert(flow.next);
  ++flow.next;
}

void PacketChecker::foreign() {
  const std::lock_guard lock(mutex_);
  ++foreign_;
}

const PacketChecker::Flow& PacketChecker::flow(uint32_t stream, uint32_t port) const {
  static const Flow none;
  const auto found = flows_.find({stream, port});
  return found == flows_.end() ? none : found->second;
}

uint64_t PacketChecker::count() const {
  const std::lock_guard lock(mutex_);
  uint64_t sum = 0;
  for (const auto& [key, flow] : flows_) sum += flow.count;
  return sum;
}

uint64_t PacketChecker::count(uint32_t stream, uint32_t port) const {
  const std::lock_guard lock(mutex_);
  return flow(stream, port).count;
}

uint64_t PacketChecker::last(uint32_t stream, uint32_t port) const {
  const std::lock_guard lock(mutex_);
  return flow(stream, port).next - 1;
}

std::string PacketChecker::faults(bool maybeLost) const {
  const std::lock_guard lock(mutex_);
  std::string text = foreign_ ? fmt::format("{} that nobody sent so\n", foreign_) : "";
  for (const auto& [key, flow] : flows_) {
    const size_t lost = maybeLost ? 0 : flow.missing.size();
    if (lost + flow.late + flow.twice == 0) continue;
    text += fmt::format("stream {} port {}: of {} lost {} (first {}), late {}, twice {}\n",
                        key.first, key.second, flow.next, lost, lost ? *flow.missing.begin() : 0,
                        flow.late, flow.twice);
  }
  return text;
}

}  // namespace TestSupport
