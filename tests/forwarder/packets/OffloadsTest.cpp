// Checksums and segments that a sender has left to hardware.
#include "forwarder/device/Offloads.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/wirra/packets/Checksum.h"

namespace Forwarder {
namespace {

struct Kind {
  const char* what;
  bool version6, tcp, tagged;
};

void put(std::string& bytes, size_t at, size_t value) {
  bytes[at] = static_cast<char>(value >> 8);
  bytes[at + 1] = static_cast<char>(value);
}
size_t get(const std::string& bytes, size_t at) {
  return static_cast<uint8_t>(bytes[at]) << 8 | static_cast<uint8_t>(bytes[at + 1]);
}

size_t networkAt(const Kind& kind) { return kind.tagged ? 18 : 14; }
size_t transportAt(const Kind& kind) { return networkAt(kind) + (kind.version6 ? 40 : 20); }
size_t payloadAt(const Kind& kind) { return transportAt(kind) + (kind.tcp ? 32 : 8); }
size_t checksumAt(const Kind& kind) { return transportAt(kind) + (kind.tcp ? 16 : 6); }

// The sum of words, folded, one byte at a time.
size_t sum(const std::string& bytes, size_t begin, size_t end) {
  size_t total = 0;
  for (size_t at = begin; at < end; ++at) {
    total += static_cast<size_t>(static_cast<uint8_t>(bytes[at])) << ((at - begin) % 2 ? 0 : 8);
  }
  while (total >> 16) total = (total & 0xffff) + (total >> 16);
  return total;
}

size_t pseudoSum(const std::string& frame, const Kind& kind) {
  const size_t at = networkAt(kind);
  const size_t addresses =
      kind.version6 ? sum(frame, at + 8, at + 40) : sum(frame, at + 12, at + 20);
  size_t total = addresses + (kind.tcp ? 6 : 17) + (frame.size() - transportAt(kind));
  while (total >> 16) total = (total & 0xffff) + (total >> 16);
  return total;
}

// As a kernel hands it to a device that cuts: lengths of the whole, the pseudo header's sum.
std::string longFrame(const Kind& kind, size_t payload) {
  std::string frame(payloadAt(kind), '\0');
  for (size_t i = 0; i < payload; ++i) frame += static_cast<char>(i * 7 + i / 256);
  if (kind.tagged) put(frame, 12, 0x8100);
  const size_t network = networkAt(kind);
  put(frame, network - 2, kind.version6 ? 0x86dd : 0x0800);
  frame[network] = kind.version6 ? '\x60' : '\x45';
  if (kind.version6) {
    put(frame, network + 4, frame.size() - transportAt(kind));
    frame[network + 6] = kind.tcp ? 6 : 17;
    for (size_t i = 8; i < 40; ++i) frame[network + i] = static_cast<char>(i * 11);
  } else {
    put(frame, network + 2, frame.size() - network);
    put(frame, network + 4, 0xfffe);
    frame[network + 9] = kind.tcp ? 6 : 17;
    for (size_t i = 12; i < 20; ++i) frame[network + i] = static_cast<char>(i * 17);
  }
  const size_t transport = transportAt(kind);
  if (kind.tcp) {
    put(frame, transport + 4, 0xffff);
    put(frame, transport + 6, 0xff00);
    frame[transport + 12] = '\x80';
    frame[transport + 13] = '\x99';  // FIN, PSH, ACK, CWR
  } else {
    put(frame, transport + 4, frame.size() - transport);
  }
  put(frame, checksumAt(kind), pseudoSum(frame, kind));
  return frame;
}

OffloadHeader offloadsOf(const Kind& kind, uint16_t segmentBytes) {
  return {.flags = 1,
          .kind = static_cast<uint8_t>(!kind.tcp ? 5 : (kind.version6 ? 4 : 1) | 0x80),
          .segmentBytes = segmentBytes,
          .checksumStart = static_cast<uint16_t>(transportAt(kind)),
          .checksumOffset = static_cast<uint16_t>(kind.tcp ? 16 : 6)};
}

Frame frameOf(std::string& bytes) {
  return {reinterpret_cast<uint8_t*>(bytes.data()), bytes.size()};
}

void checkSegment(const std::string& segment, const Kind& kind, size_t number, bool last) {
  const size_t network = networkAt(kind);
  const size_t transport = transportAt(kind);
  if (kind.version6) {
    EXPECT_EQ(get(segment, network + 4), segment.size() - transport);
  } else {
    EXPECT_EQ(get(segment, network + 2), segment.size() - network);
    EXPECT_EQ(get(segment, network + 4), (0xfffe + number) & 0xffff);
    EXPECT_EQ(sum(segment, network, transport), 0xffff);
  }
  if (kind.tcp) {
    const size_t sequence = (0xffffff00 + number * 1000) & 0xffffffff;
    EXPECT_EQ(get(segment, transport + 4) << 16 | get(segment, transport + 6), sequence);
    const int flags = 0x10 | (last ? 0x09 : 0) | (number == 0 ? 0x80 : 0);
    EXPECT_EQ(static_cast<uint8_t>(segment[transport + 13]), flags);
  } else {
    EXPECT_EQ(get(segment, transport + 4), segment.size() - transport);
  }
  EXPECT_EQ((sum(segment, transport, segment.size()) + pseudoSum(segment, kind)) % 0xffff, 0);
}

TEST(OffloadsTest, SegmentsAreCompletePackets) {
  for (const Kind& kind :
       {Kind{"TCP", false, true, false}, Kind{"TCP over IPv6", true, true, false},
        Kind{"UDP", false, false, false}, Kind{"UDP, tagged", false, false, true},
        Kind{"TCP over IPv6, tagged", true, true, true}}) {
    for (const size_t payload : {size_t{1}, size_t{999}, size_t{1000}, size_t{45001}}) {
      SCOPED_TRACE(std::string(kind.what) + ", " + std::to_string(payload));
      std::string whole = longFrame(kind, payload);
      Segments segments(frameOf(whole), offloadsOf(kind, 1000));
      ASSERT_TRUE(segments.valid());
      std::string got;
      std::string segment(whole.size(), '\0');
      size_t number = 0;
      while (const size_t size = segments.next(reinterpret_cast<uint8_t*>(segment.data()))) {
        const std::string one = segment.substr(0, size);
        got += one.substr(payloadAt(kind));
        checkSegment(one, kind, number++, got.size() == payload);
      }
      EXPECT_EQ(number, (payload + 999) / 1000);
      EXPECT_EQ(got, whole.substr(payloadAt(kind)));
    }
  }
}

TEST(OffloadsTest, ChecksumsAreCompletedAndBadDescriptionsRefused) {
  const Kind kind{"UDP", false, false, false};
  for (const size_t payload : {size_t{0}, size_t{1}, size_t{2}, size_t{1471}}) {
    std::string frame = longFrame(kind, payload);
    std::string other = frame;
    OffloadHeader offloads = offloadsOf(kind, 0);
    ASSERT_TRUE(completeChecksum(frameOf(frame), offloads));
    Wirra::completeChecksum({reinterpret_cast<uint8_t*>(other.data()), other.size()});
    EXPECT_EQ(frame, other);
    offloads.checksumStart = static_cast<uint16_t>(frame.size());
    EXPECT_FALSE(completeChecksum(frameOf(frame), offloads));
  }
  // No description and no cut of a frame may lead beyond its bytes.
  const Kind tcp{"TCP", false, true, false};
  const std::string whole = longFrame(tcp, 100);
  for (size_t size = 0; size < whole.size(); ++size) {
    std::string cut = whole.substr(0, size);
    cut.shrink_to_fit();
    for (const uint16_t start : {0, 14, 34, 100, 65535}) {
      OffloadHeader offloads = offloadsOf(tcp, 10);
      offloads.checksumStart = start;
      Segments segments(frameOf(cut), offloads);
      std::string room(size, '\0');
      while (segments.valid() && segments.next(reinterpret_cast<uint8_t*>(room.data()))) {
      }
      completeChecksum(frameOf(cut), offloads);
    }
  }
}

}  // namespace
}  // namespace Forwarder
