// Packets between controllers and ports: none is lost, none comes twice, none overtakes another.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <mutex>
#include <set>
#include <thread>

#include "tests/e2e/WiredSwitch.h"

using namespace TestSupport;

namespace {

std::string packetOf(uint32_t stream, uint32_t port, uint64_t sequence) {
  // All sizes come, and the smallest and the largest of them first.
  const size_t sizes[] = {60, 9000};
  return markedPacket({.stream = stream, .port = port, .sequence = sequence},
                      sequence < 2 ? sizes[sequence] : 60 + (sequence * 4099 + port) % 8941);
}

void check(PacketChecker& checker, std::span<const uint8_t> packet, uint32_t port) {
  const auto mark = markOf(packet);
  if (mark && mark->port == port) return checker.arrived(*mark);
  checker.foreign();
}

std::span<const uint8_t> payloadOf(const p4::v1::PacketIn& packet) {
  return {reinterpret_cast<const uint8_t*>(packet.payload().data()), packet.payload().size()};
}

// The port that a packet-in came in on; 0 when its metadata are not as they should be.
uint32_t ingressPort(const p4::v1::PacketIn& packet) {
  if (packet.metadata_size() != 2 || packet.metadata(0).metadata_id() != 1) return 0;
  const std::string port = paddedBytes(packet.metadata(0).value(), 32);
  return static_cast<uint8_t>(port[3]);  // none of ours has more than one byte
}

TEST(MarkedPackets, TellWhatIsWrongWithTheirOrder) {
  const struct {
    const char* what;
    std::vector<uint64_t> arrived;
    const char* fault;
  } cases[] = {
      {"nothing", {0, 1, 2, 3}, ""},
      {"one is missing", {0, 2, 3}, "lost 1 (first 1), late 0, twice 0"},
      {"the first one is missing", {1, 2}, "lost 1 (first 0), late 0, twice 0"},
      {"one comes again", {0, 1, 2, 1}, "lost 0 (first 0), late 0, twice 1"},
      {"two change places", {0, 2, 1, 3}, "lost 0 (first 0), late 1, twice 0"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    PacketChecker checker;
    for (const uint64_t sequence : c.arrived) checker.arrived({.port = 1, .sequence = sequence});
    EXPECT_THAT(checker.faults(), testing::HasSubstr(c.fault));
    EXPECT_EQ(checker.faults().empty(), *c.fault == '\0');
  }
  const std::string whole = packetOf(1, 2, 3);
  ASSERT_TRUE(markOf(whole));
  for (const size_t changed : {size_t{12}, size_t{40}, whole.size() - 1}) {
    std::string packet = whole;
    ++packet[changed];
    EXPECT_FALSE(markOf(packet)) << changed;
  }
  EXPECT_FALSE(markOf(whole.substr(0, whole.size() - 1)));
  EXPECT_FALSE(markOf(whole + '\0'));
}

// The far end of a port sends packets back, so each packet goes both ways.
class PacketsBothWays : public testing::TestWithParam<bool> {};

TEST_P(PacketsBothWays, NoneIsLostNorReordered) {
  constexpr uint32_t ports = 4;
  constexpr uint64_t packetsEach = 13000;
  PacketChecker out;
  PacketChecker in;
  Window window(packetWindow);
  WiredSwitch* self = nullptr;
  WiredSwitch tested(
      {.ports = ports, .cpuTap = GetParam()},
      [&](uint32_t link, std::span<const uint8_t> packet) {
        check(out, packet, link);
        self->farEnd(link).send({reinterpret_cast<const char*>(packet.data()), packet.size()});
      },
      [&](const p4::v1::PacketIn& packet) {
        check(in, payloadOf(packet), ingressPort(packet));
        window.give();
      });
  self = &tested;
  ASSERT_TRUE(tested.start());
  for (uint64_t sequence = 0; sequence < packetsEach; ++sequence) {
    for (uint32_t port = 1; port <= ports; ++port) {
      ASSERT_TRUE(window.take()) << out.faults() << in.faults() << tested.drops();
      ASSERT_TRUE(tested.controller().send(packetOut(port, packetOf(1, port, sequence))));
    }
  }
  EXPECT_TRUE(waitUntil([&] { return in.count() == ports * packetsEach; }))
      << in.count() << tested.forwarder.ctl({"punt"}).output;
  EXPECT_EQ(out.faults(), "");
  EXPECT_EQ(in.faults(), "");
  EXPECT_EQ(out.count(), ports * packetsEach);
  EXPECT_EQ(tested.controller().streamErrorCount(), 0u);
  EXPECT_TRUE(waitUntil([&] { return tested.count("out") == ports * packetsEach; }));
  EXPECT_EQ(tested.count("inToControllers"), ports * packetsEach);
  EXPECT_EQ(tested.drops(), "");
}
INSTANTIATE_TEST_SUITE_P(CpuDevice, PacketsBothWays, testing::Bool(),
                         [](const auto& info) { return info.param ? "Tap" : "Veth"; });

// A program of its own that sends packets (see PacketFlood.cpp) until it is killed.
struct Flood {
  Flood(const WiredSwitch& tested, uint32_t stream, uint64_t electionId)
      : process({binaryPath("packet-flood"), tested.agent.address(), std::to_string(stream),
                 std::to_string(electionId)},
                "", "") {}
  Process process;
};

TEST(ControllerKilled, InMidStreamLeavesThePortToTheNext) {
  PacketChecker out;
  std::atomic<uint32_t> newest{0};
  std::atomic<bool> overtaken{false};
  std::atomic<uint64_t> toBackup{0};
  WiredSwitch* self = nullptr;
  WiredSwitch tested(
      {.ports = 1},
      [&](uint32_t link, std::span<const uint8_t> packet) {
        check(out, packet, link);
        const uint32_t stream = markOf(packet).value_or(PacketMark()).stream;
        if (stream < newest) overtaken = true;
        newest = stream;
        self->cpuFarEnd().send(
            punted(1, {reinterpret_cast<const char*>(packet.data()), packet.size()}));
      },
      [&](const p4::v1::PacketIn&) { ++toBackup; });
  self = &tested;
  ASSERT_TRUE(tested.start());
  const uint64_t electionId = 100;
  for (uint32_t stream = 1; stream <= 5; ++stream) {
    SCOPED_TRACE(testing::Message() << "controller " << stream);
    Flood flood(tested, stream, electionId + stream);
    ASSERT_TRUE(waitUntil([&] { return out.count(stream, 1) > 2000; }, flood.process.descriptor()));
    // Ours is a backup by now: its packets go nowhere, and it is told so.
    const uint64_t before = toBackup;
    for (uint64_t i = 0; i < 10; ++i) {
      ASSERT_TRUE(tested.controller().send(packetOut(1, packetOf(99, 1, i))));
      const auto error = tested.controller().streamError();
      ASSERT_TRUE(error);
      EXPECT_EQ(error->canonical_code(), grpc::StatusCode::PERMISSION_DENIED);
    }
    EXPECT_EQ(toBackup, before);
    flood.process.kill();
  }
  EXPECT_EQ(out.count(99, 1), 0u);
  EXPECT_EQ(out.faults(), "");
  EXPECT_FALSE(overtaken);
  EXPECT_TRUE(waitUntil([&] { return tested.count("outRefusedNotPrimary") == 50; }));
}

// Sequence numbers in the order in which they left through each of two links.
class Departures {
 public:
  void add(uint32_t link, std::span<const uint8_t> packet) {
    const std::lock_guard lock(mutex_);
    const auto mark = markOf(packet);
    if (mark) left_[link].push_back(mark->sequence);
  }
  size_t count() {
    const std::lock_guard lock(mutex_);
    return left_[1].size() + left_[2].size();
  }
  size_t count(uint32_t link) {
    const std::lock_guard lock(mutex_);
    return left_[link].size();
  }
  bool inOrder(uint32_t link) {
    return std::adjacent_find(left_[link].begin(), left_[link].end(), std::greater_equal<>()) ==
           left_[link].end();
  }
  // How often, in sequence, one packet left through another link than the one before it.
  size_t changes() {
    std::map<uint64_t, uint32_t> linkOf;
    for (const auto& [link, sequences] : left_) {
      for (const uint64_t sequence : sequences) linkOf[sequence] = link;
    }
    size_t changes = 0;
    uint32_t last = linkOf.empty() ? 0 : linkOf.begin()->second;
    for (const auto& [sequence, link] : linkOf) {
      changes += link != last;
      last = link;
    }
    return changes;
  }

 private:
  std::mutex mutex_;
  std::map<uint32_t, std::vector<uint64_t>> left_;
};

TEST(PortMapping, ChangesUnderTrafficAndEachPacketLeavesOnceInOrder) {
  constexpr size_t remaps = 30;
  Departures left;
  Window window(packetWindow);
  WiredSwitch tested({.ports = 1, .spareLinks = 1},
                     [&](uint32_t link, std::span<const uint8_t> packet) {
                       left.add(link, packet);
                       window.give();
                     });
  ASSERT_TRUE(tested.start());
  std::atomic<bool> done{false};
  uint64_t sent = 0;
  std::thread sender([&] {
    for (; !done && window.take(); ++sent) {
      tested.controller().send(packetOut(1, packetOf(1, 1, sent)));
    }
  });
  EXPECT_TRUE(waitUntil([&] { return left.count(1) > 0; }));  // or the first change goes unseen
  for (size_t i = 0; i < remaps; ++i) {
    const uint32_t next = i % 2 ? 1 : 2;
    const size_t before = left.count(next);
    const CommandResult mapped =
        tested.agent.korvel({"port", "map", "1", WiredSwitch::device(next)});
    EXPECT_EQ(mapped.exit.code, 0) << mapped.error;
    EXPECT_TRUE(waitUntil([&] { return left.count(next) > before + 100; }));
  }
  done = true;
  sender.join();
  EXPECT_TRUE(waitUntil([&] { return left.count() == sent; })) << left.count() << " of " << sent;
  EXPECT_TRUE(left.inOrder(1));
  EXPECT_TRUE(left.inOrder(2));
  EXPECT_EQ(left.changes(), remaps);
  EXPECT_EQ(tested.drops(), "");
}

size_t descriptorCount(pid_t pid) {
  const std::filesystem::directory_iterator descriptors("/proc/" + std::to_string(pid) + "/fd");
  return static_cast<size_t>(std::distance(begin(descriptors), end(descriptors)));
}

// Port 1's device and the CPU device come and go while packets flow through both, and through port
// 2, which must not notice.
TEST(Devices, FlapUnderTrafficWithoutLeakOrHarmToOthers) {
  PacketChecker out;
  std::atomic<uint64_t> in{0};
  std::atomic<uint64_t> fromPort{0};  // packets that the forwarder takes from port 1's device
  Window window(packetWindow / 2);
  WiredSwitch tested(
      {.ports = 2},
      [&](uint32_t link, std::span<const uint8_t> packet) {
        check(out, packet, link);
        if (link == 2) window.give();
      },
      [&](const p4::v1::PacketIn& packet) {
        const auto mark = markOf(packet.payload());
        ++(mark && mark->stream == 4 ? fromPort : in);
      });
  ASSERT_TRUE(tested.start());
  std::atomic<bool> done{false};
  uint64_t sent = 0;
  std::thread sender([&] {
    for (; !done && window.take(); ++sent) {
      tested.controller().send(packetOut(2, packetOf(1, 2, sent)));
      tested.controller().send(packetOut(1, packetOf(1, 1, sent)));
    }
  });
  const auto flap = [&](int round) {
    const std::string device = round % 2 ? "p4controller" : WiredSwitch::device(1);
    if (round % 15 == 0) {
      tested.linkRemade(1);
      tested.cpuLinkRemade();
    } else {
      deviceUpIs(device, false);
      deviceUpIs(device, true);
    }
    tested.cpuFarEnd().send(punted(1, packetOf(2, 1, static_cast<uint64_t>(round))));
  };
  const auto trafficWorks = [&] {
    const uint64_t outBefore = out.count(1, 1);
    const uint64_t inBefore = in;
    const uint64_t fromPortBefore = fromPort;
    return waitUntil([&] {
      tested.cpuFarEnd().send(punted(1, packetOf(3, 1, 0)));
      tested.farEnd(1).send(packetOf(4, 1, 0));
      return out.count(1, 1) > outBefore && in > inBefore && fromPort > fromPortBefore;
    });
  };
  for (int round = 0; round < 30; ++round) flap(round);
  ASSERT_TRUE(trafficWorks());
  const size_t descriptors = descriptorCount(tested.agent.pid());
  const size_t resident = residentBytes(tested.agent.pid());
  for (int round = 0; round < 300; ++round) flap(round);
  EXPECT_TRUE(trafficWorks()) << tested.drops();
  done = true;
  sender.join();
  EXPECT_EQ(descriptorCount(tested.agent.pid()), descriptors);
  EXPECT_LT(residentBytes(tested.agent.pid()), resident + (16 << 20));
  EXPECT_TRUE(waitUntil([&] { return out.count(1, 2) == sent; }));
  EXPECT_EQ(out.faults(true), "");
  EXPECT_EQ(tested.controller().streamErrorCount(), 0u);
}

}  // namespace
