// Packets that cannot go where they should, controllers that do not read, and an agent that is
// asked to stop: each gets a clear answer, is counted, and harms nobody else.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <mutex>
#include <thread>

#include "tests/e2e/WiredSwitch.h"

using namespace TestSupport;
using grpc::StatusCode;

namespace {

std::string packetOf(uint64_t sequence, size_t size = 100) {
  return markedPacket({.stream = 1, .port = 1, .sequence = sequence}, size);
}

// Counts arrivals, also at wrong places.
struct Arrivals {
  std::atomic<uint64_t> out{0};
  std::atomic<uint64_t> in{0};
  WiredSwitch::AtFarEnd atFarEnd() {
    return [this](uint32_t, std::span<const uint8_t>) { ++out; };
  }
  WiredSwitch::AtController atController() {
    return [this](const p4::v1::PacketIn&) { ++in; };
  }
};

TEST(PacketOut, ThatIsWrongIsRefusedInWordsAndCounted) {
  using Packet = p4::v1::PacketOut;
  const struct {
    const char* what;
    std::function<void(Packet&)> change;
    StatusCode code;  // of the stream error; OK: no error, the packet is accepted
    const char* counted;
  } cases[] = {
      {"no metadata", [](Packet& p) { p.clear_metadata(); }, StatusCode::INVALID_ARGUMENT,
       "outRefusedMetadata"},
      {"one is missing", [](Packet& p) { p.mutable_metadata()->RemoveLast(); },
       StatusCode::INVALID_ARGUMENT, "outRefusedMetadata"},
      {"a value is too wide", [](Packet& p) { p.mutable_metadata(1)->set_value("\1\1"); },
       StatusCode::INVALID_ARGUMENT, "outRefusedMetadata"},
      {"a port that is not mapped", [](Packet& p) { p.mutable_metadata(0)->set_value("\7"); },
       StatusCode::OK, "outDroppedNoMapping"},
      {"longer than the MTU", [](Packet& p) { p.set_payload(packetOf(0, 9015)); }, StatusCode::OK,
       "outDroppedTooLong"},
      {"much longer than any packet", [](Packet& p) { p.set_payload(packetOf(0, 60000)); },
       StatusCode::OK, "outDroppedTooLong"},
      {"nothing in it", [](Packet& p) { p.clear_payload(); }, StatusCode::INVALID_ARGUMENT,
       "outRefusedMetadata"},
      {"less than an Ethernet header", [](Packet& p) { p.set_payload("short"); }, StatusCode::OK,
       "outDroppedFailed"},
  };
  Arrivals arrived;
  WiredSwitch tested({.ports = 1}, arrived.atFarEnd());
  ASSERT_TRUE(tested.start());
  TestController& controller = tested.controller();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const uint64_t before = tested.count(c.counted);
    Packet packet = packetOut(1, packetOf(0));
    c.change(packet);
    ASSERT_TRUE(controller.send(packet));
    if (c.code != StatusCode::OK) {
      const auto error = controller.streamError();
      ASSERT_TRUE(error);
      EXPECT_EQ(error->canonical_code(), c.code);
      EXPECT_NE(error->message(), "");
    }
    EXPECT_TRUE(waitUntil([&] { return tested.count(c.counted) == before + 1; })) << tested.drops();
  }
  TestController stranger(tested.agent.address(), 0);
  ASSERT_TRUE(stranger.send(packetOut(1, packetOf(0))));  // before any arbitration
  const auto error = stranger.streamError();
  ASSERT_TRUE(error);
  EXPECT_EQ(error->canonical_code(), StatusCode::PERMISSION_DENIED);
  EXPECT_TRUE(waitUntil([&] { return tested.count("outRefusedNotPrimary") == 1; }));
  // The first that is right arrives, and is the first that does.
  ASSERT_TRUE(controller.send(packetOut(1, packetOf(0))));
  EXPECT_TRUE(waitUntil([&] { return arrived.out > 0; }));
  EXPECT_EQ(arrived.out, 1u);
  EXPECT_EQ(controller.streamErrorCount(), 4u);
}

// A controller that waits for nothing and a slow device: each packet goes out, or its sender is
// told. The parameter is the limit of the device's queue, which refuses packets beyond it; a queue
// larger than a socket's share leaves that to the socket. The device is slower than any controller
// until everything is sent.
class SlowPort : public testing::TestWithParam<const char*> {
 protected:
  bool rateIs(const char* operation, const char* rate) const {
    return run({"tc", "qdisc", operation, "dev", WiredSwitch::device(1), "root", "tbf", "rate",
                rate, "burst", "64k", "limit", GetParam()})
               .exit.code == 0;
  }
};

TEST_P(SlowPort, RefusesWhatIsTooMuchOneByOneAndKeepsTheOrder) {
  constexpr uint64_t packets = 30000;
  PacketChecker out;
  WiredSwitch tested({.ports = 1}, [&](uint32_t, std::span<const uint8_t> packet) {
    const auto mark = markOf(packet);
    mark ? out.arrived(*mark) : out.foreign();
  });
  if (!rateIs("add", "2mbit")) GTEST_SKIP() << "the kernel cannot make a device slow";
  ASSERT_TRUE(tested.start());
  for (uint64_t i = 0; i < packets; ++i) {
    ASSERT_TRUE(tested.controller().send(packetOut(1, packetOf(i, i % 2 ? 60 : 9000))));
  }
  const auto refused = [&] { return tested.count("outRefusedQueueFull"); };
  EXPECT_TRUE(waitUntil([&] { return refused() > 0; })) << tested.drops();
  ASSERT_TRUE(rateIs("change", "500mbit"));
  EXPECT_TRUE(waitUntil([&] { return tested.count("out") + refused() == packets; }))
      << tested.drops();
  EXPECT_TRUE(waitUntil([&] { return out.count() + refused() == packets; })) << out.count();
  EXPECT_EQ(out.faults(true), "");
  EXPECT_LE(tested.controller().streamErrorCount(), refused());
  const auto error = tested.controller().streamError();
  ASSERT_TRUE(error);
  EXPECT_EQ(error->canonical_code(), StatusCode::RESOURCE_EXHAUSTED);
}
INSTANTIATE_TEST_SUITE_P(Limit, SlowPort, testing::Values("100k", "64m"));

// A header longer than an Ethernet header, so that a packet can end within it.
void longPacketIn(Pipeline& pipeline) {
  for (auto& header : *pipeline.request()
                           .mutable_config()
                           ->mutable_p4info()
                           ->mutable_controller_packet_metadata()) {
    if (header.preamble().name() != "packet_in") continue;
    for (uint32_t id = 3; id < 7; ++id) {
      auto& field = *header.add_metadata();
      field.set_id(id);
      field.set_name("more" + std::to_string(id));
      field.set_bitwidth(31);
    }
  }
}

TEST(PacketIn, ThatEndsWithinItsHeaderIsCountedAndTheNextOneComes) {
  Arrivals arrived;
  WiredSwitch tested({.ports = 1, .pipelineChange = longPacketIn}, arrived.atFarEnd(),
                     arrived.atController());
  ASSERT_TRUE(tested.start());
  const std::string header(21, '\1');
  for (size_t size = 14; size < header.size(); ++size) {
    ASSERT_TRUE(tested.cpuFarEnd().send(header.substr(0, size)));
  }
  const uint64_t malformed = header.size() - 14;
  EXPECT_TRUE(waitUntil([&] { return tested.count("inDroppedMalformed") == malformed; }));
  ASSERT_TRUE(tested.cpuFarEnd().send(header + packetOf(0)));
  EXPECT_TRUE(waitUntil([&] { return arrived.in > 0; }));
  EXPECT_EQ(arrived.in, 1u);
  EXPECT_TRUE(waitUntil([&] { return tested.count("in") == malformed + 1; }));
}

// Ports are strings to controllers.
void portsAreStrings(Pipeline& pipeline) {
  p4::config::v1::P4Info p4Info = pipeline.p4info();
  auto& types = *p4Info.mutable_type_info()->mutable_new_types();
  types["port_id_t"].mutable_translated_type()->mutable_sdn_string();
  for (auto& header : *p4Info.mutable_controller_packet_metadata()) {
    header.mutable_metadata(0)->clear_bitwidth();
    header.mutable_metadata(0)->mutable_type_name()->set_name("port_id_t");
  }
  const TempDir directory;
  std::ofstream(directory.file("p4info.bin")) << p4Info.SerializeAsString();
  const auto built =
      run({binaryPath("korvel"), "pipeline", "build", "--p4info", directory.file("p4info.bin"),
           "--device-id", "1", "--output", directory.file("built.pb.bin")});
  ASSERT_EQ(built.exit.code, 0) << built.error;
  pipeline.request() = Pipeline(directory.file("built.pb.bin")).request();
}

TEST(PortNames, StandForPortsBothWays) {
  Arrivals arrived;
  std::mutex mutex;
  std::string ingress;
  WiredSwitch tested({.ports = 1, .pipelineChange = portsAreStrings}, arrived.atFarEnd(),
                     [&](const p4::v1::PacketIn& packet) {
                       const std::lock_guard lock(mutex);
                       ingress = packet.metadata(0).value();
                       ++arrived.in;
                     });
  ASSERT_TRUE(tested.start());
  tested.agent.korvel({"set", "p4runtime/config/translation/port_id_t", "names", "Ethernet1=1"});
  p4::v1::PacketOut packet = packetOut(1, packetOf(0));
  packet.mutable_metadata(0)->set_value("Ethernet7");
  ASSERT_TRUE(tested.controller().send(packet));
  const auto error = tested.controller().streamError();
  ASSERT_TRUE(error);
  EXPECT_EQ(error->canonical_code(), StatusCode::INVALID_ARGUMENT);
  packet.mutable_metadata(0)->set_value("Ethernet1");
  ASSERT_TRUE(tested.controller().send(packet));
  EXPECT_TRUE(waitUntil([&] { return arrived.out == 1; })) << tested.drops();
  ASSERT_TRUE(tested.cpuFarEnd().send(punted(1, packetOf(0))));
  ASSERT_TRUE(waitUntil([&] { return arrived.in == 1; })) << tested.drops();
  const std::lock_guard lock(mutex);
  EXPECT_EQ(ingress, "Ethernet1");
}

TEST(SlowController, LosesItsOwnPacketsAndHoldsUpNobody) {
  Arrivals arrived;
  WiredSwitch tested({.ports = 1}, arrived.atFarEnd(), arrived.atController());
  ASSERT_TRUE(tested.start());
  tested.controller().readsIs(false);
  std::atomic<bool> done{false};
  uint64_t sent = 0;
  std::thread forwardingPlane([&] {
    const std::string packet = punted(1, packetOf(0, 9000));
    const std::vector<std::string_view> packets(64, packet);
    while (!done) sent += tested.cpuFarEnd().send(packets);
  });
  // Another channel of the same controller.
  TestController writer(tested.agent.address(), 2);
  EXPECT_TRUE(waitUntil([&] { return tested.count("inDroppedSlowController") > 1000; }));
  for (uint32_t i = 0; i < 50; ++i) {
    EXPECT_TRUE(writer.write({insertOf(tested.route(i, 1))}).ok());
  }
  done = true;
  forwardingPlane.join();
  const auto accounted = [&] {
    return tested.count("inToControllers") + tested.count("inDroppedSlowController") +
           tested.count("inDroppedMissed") + tested.count("inDroppedRefused");
  };
  EXPECT_TRUE(waitUntil([&] { return accounted() == sent; })) << tested.drops();
  tested.controller().readsIs(true);
  EXPECT_TRUE(waitUntil([&] { return arrived.in == tested.count("inToControllers"); }));
  EXPECT_EQ(tested.disagreement(), "");
}

TEST(AgentStopped, UnderPacketLoadExitsWithZero) {
  for (int round = 0; round < 4; ++round) {
    SCOPED_TRACE(testing::Message() << "round " << round);
    Arrivals arrived;
    WiredSwitch tested({.ports = 1, .cpuTap = round % 2 == 0}, arrived.atFarEnd(),
                       arrived.atController());
    ASSERT_TRUE(tested.start());
    if (round == 3) tested.controller().readsIs(false);
    std::atomic<bool> done{false};
    std::thread controller([&] {
      while (tested.controller().send(packetOut(1, packetOf(0, 1500)))) continue;
    });
    std::thread forwardingPlane([&] {
      // Punted when it comes through the port, too.
      while (!done) tested.farEnd(1).send(packetOf(0, 1500));
    });
    EXPECT_TRUE(waitUntil([&] { return arrived.out > 1000 && tested.count("in") > 1000; }));
    tested.agent.process().signal(round % 2 ? SIGTERM : SIGINT);
    EXPECT_EQ(tested.agent.process().exitStatus(), (ExitStatus{.code = 0}));
    done = true;
    tested.controller().readsIs(true);
    controller.join();
    forwardingPlane.join();
  }
}

}  // namespace
