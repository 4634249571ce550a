// Packets over real devices: veth pairs in a network namespace of the test's own.
#include "P4Runtime/packet/P4RuntimeCpuPktSm.h"

#include <gtest/gtest.h>

#include <net/if.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <mutex>

#include "PI/int/pi_int.h"
#include "PI/pi.h"
#include "platform/vela/ActivityLock.h"
#include "platform/wirra/devices/KernelNetInterfaceSm.h"
#include "platform/wirra/interfaces/InterfaceStatusSm.h"
#include "platform/wirra/packets/PacketManager.h"
#include "tests/P4Runtime/support/AgentParts.h"
#include "tests/support/MarkedPacket.h"
#include "tests/support/NetworkNamespace.h"
#include "tests/support/PacketEndpoint.h"

namespace P4Runtime {
namespace {

using namespace TestSupport;
using Vela::ActivityLock;

constexpr pi_dev_id_t deviceId = 1;
constexpr const char* cpuDevice = "cpu-of-switch1";
constexpr const char* macOfSwitch = "02:00:00:00:12:34";

size_t openDescriptors() {
  using Iterator = std::filesystem::directory_iterator;
  return static_cast<size_t>(std::distance(Iterator("/proc/self/fd"), Iterator()));
}

// What the library hands to controllers' streams.
struct Controllers {
  static void take(pi_dev_id_t, const char* packet, size_t size, void* cookie) {
    auto& self = *static_cast<Controllers*>(cookie);
    const auto mark = markOf(std::string(packet, size));
    mark ? self.checker.arrived(*mark) : self.checker.foreign();
  }
  PacketChecker checker;
};

// The far end of a port.
struct FarEnd {
  explicit FarEnd(const std::string& device)
      : endpoint(device, [this](std::span<const uint8_t> packet) {
          const auto mark = markOf(packet);
          mark ? checker.arrived(*mark) : checker.foreign();
        }) {}
  PacketChecker checker;
  PacketEndpoint endpoint;
};

class CpuPktSmTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { trouble() = enteredNetworkNamespace(); }
  static std::string& trouble() {
    static std::string why;
    return why;
  }
  void SetUp() override {
    if (!trouble().empty()) GTEST_SKIP() << trouble();
    parts_ = std::make_unique<AgentParts>(directory_.path());
    pi_init(8, nullptr);
    const ActivityLock lock;
    bridging_->bridgeMacAddrIs(macOfSwitch);
    kernelSm_ = std::make_unique<Wirra::KernelNetInterfaceSm>(parts_->loop, kernel_);
    interfaceSm_ = std::make_unique<Interface::InterfaceStatusSm>(
        kernel_, directories_, Vela::make<Wirra::InterfaceOperations>(), cpuDevice);
    sm_ = cpuPktSmFactory(parts_->loop,
                          {.kernelNetInfoStatus = kernel_,
                           .controllerInterface = controllerInterfaceFactory(bridging_, cpuDevice),
                           .controllerTxPktConfig = queue_,
                           .controllerTxPktStatus = status_,
                           .p4RtSystemConfig = parts_->config,
                           .p4RtPortMappingStatus = mapping_,
                           .allIntfStatusDir = directories_.all,
                           .allIntfStatusLocalDir = directories_.local});
  }
  void TearDown() override {
    if (!parts_) return;
    pi_packetin_deregister_cb(deviceId);
    pi_destroy();
    const ActivityLock lock;
    sm_ = nullptr;
    interfaceSm_.reset();
    kernelSm_.reset();
  }

  // Turns the reactor until it is so.
  bool until(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition()) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      // Work posted before the loop runs comes before its descriptors; later work comes with them.
      Vela::ReactorLoop& loop = parts_->loop;
      loop.post([&loop] { loop.post([&loop] { loop.stop(); }); });
      loop.run();
    }
    return true;
  }
  bool untilOpen(const std::string& intf) {
    return until([&] {
      const auto pam = sm_->pamCollection()->pam(intf);
      const auto device = kernel_->device(intf);
      return pam && device && static_cast<uint32_t>(pam->ifIndex()) == device->ifIndex() &&
             device->ifIndex() == if_nametoindex(intf.c_str()) && device->operUp();
    });
  }
  void map(uint32_t port, const std::string& intf) {
    const ActivityLock lock;
    mapping_->intfOfPortIs(port, intf);
  }
  // The next packet of the port.
  bool send(uint32_t port, size_t size = 60, bool ingress = false) {
    const std::string bytes = markedPacket({0, port, next_[port]}, size);
    const ActivityLock lock;
    const auto packet = Wirra::ThePacketManager().packet(size);
    std::copy(bytes.begin(), bytes.end(), packet->head());
    const bool taken = queue_->txPktDescEnq({port, packet, ControllerTxPktFlags(ingress)});
    if (taken) ++next_[port];
    return taken;
  }
  bool untilDrained() {
    return until([&] { return queue_->txPktDesc().empty() && queue_->held() == 0; });
  }
  // Every packet of the port that went out has come to its end.
  bool untilArrived(FarEnd& end, uint32_t port, uint64_t count) {
    return until([&] { return end.checker.count(0, port) >= count; });
  }
  void assignDevice() {
    pi_assign_device(deviceId, &p4info_, nullptr);
    pi_packetin_register_cb(deviceId, &Controllers::take, &controllers_);
  }

  TempDir directory_;
  std::unique_ptr<AgentParts> parts_;
  pi_p4info_t p4info_{};
  Controllers controllers_;
  const Vela::Ptr<Wirra::KernelNetInterfaceStatus> kernel_ =
      Vela::make<Wirra::KernelNetInterfaceStatus>("kernel");
  const Interface::Directories directories_{Vela::make<Interface::AllIntfStatusDir>("all"),
                                            Vela::make<Interface::AllIntfStatusLocalDir>("local"),
                                            Vela::make<Interface::AllEthPhyIntfStatusDir>("phy"),
                                            Vela::make<Interface::AllEthPhyIntfConfigDir>("phy")};
  const Vela::Ptr<Bridging::Config> bridging_ = Vela::make<Bridging::Config>("bridging");
  const Vela::Ptr<P4RuntimeConfig::PortMappingStatus> mapping_ =
      Vela::make<P4RuntimeConfig::PortMappingStatus>("mapping");
  const Vela::Ptr<ControllerTxPktConfig> queue_ = controllerTxPktConfigFactory();
  const Vela::Ptr<ControllerTxPktStatus> status_ = Vela::make<ControllerTxPktStatus>("status");
  std::unique_ptr<Wirra::KernelNetInterfaceSm> kernelSm_;
  std::unique_ptr<Interface::InterfaceStatusSm> interfaceSm_;
  Vela::Ptr<CpuPktSm> sm_;
  std::map<uint32_t, uint64_t> next_;
};

TEST_F(CpuPktSmTest, APortsPacketsGoToItsInterfaceAsTheyAre) {
  const VethPair a("a0", "a1"), b("b0", "b1");
  FarEnd endA("a1"), endB("b1");
  map(1, "a0");
  map(2, "b0");
  map(3, "none");
  ASSERT_TRUE(untilOpen("a0") && untilOpen("b0"));
  const size_t sizes[] = {60, 61, 1514, 9000, 9014};
  for (const size_t size : sizes) {
    for (const uint32_t port : {1, 2}) ASSERT_TRUE(send(port, size));
  }
  send(3);
  send(4);
  send(1, 20000);
  ASSERT_TRUE(untilDrained());
  EXPECT_TRUE(untilArrived(endA, 1, std::size(sizes)) && untilArrived(endB, 2, std::size(sizes)));
  EXPECT_EQ(endA.checker.faults() + endB.checker.faults(), "");
  EXPECT_EQ(status_->noPam(), 1u);
  EXPECT_EQ(status_->noMapping(), 1u);
  EXPECT_EQ(status_->tooLong(), 1u);
  EXPECT_EQ(status_->sent(), 2 * std::size(sizes));
}

TEST_F(CpuPktSmTest, AMappingChangedUnderTrafficReordersNothing) {
  const VethPair a("a0", "a1"), b("b0", "b1");
  FarEnd endA("a1"), endB("b1");
  map(1, "a0");
  ASSERT_TRUE(untilOpen("a0") && untilOpen("b0"));
  uint64_t sent = 0;
  for (int round = 0; round < 20; ++round) {
    for (int i = 0; i < 500; ++i) sent += send(1, 60) ? 1 : 0;
    until([&] { return status_->sent() > sent / 2; });
    map(1, round % 2 ? "a0" : "b0");
  }
  ASSERT_TRUE(untilDrained());
  EXPECT_EQ(status_->sent(), sent);
  EXPECT_TRUE(until([&] { return endA.checker.count() + endB.checker.count() == sent; }));
  // Each end sees gaps where the other one got the packets, and never an older one.
  EXPECT_EQ(endA.checker.faults(true) + endB.checker.faults(true), "");
}

TEST_F(CpuPktSmTest, AccessFollowsADeviceThatGoesDownGoesAndIsMadeAnew) {
  VethPair a("a0", "a1");
  map(1, "a0");
  ASSERT_TRUE(untilOpen("a0"));
  deviceUpIs("a0", false);
  send(1);
  ASSERT_TRUE(untilDrained());
  EXPECT_EQ(status_->deviceDown(), 1u);
  deviceUpIs("a0", true);
  send(1);
  ASSERT_TRUE(untilDrained());
  EXPECT_EQ(status_->sent(), 1u) << "up again, by the same access";
  a.remade();
  ASSERT_TRUE(untilOpen("a0"));
  {
    FarEnd end("a1");
    send(1);
    EXPECT_TRUE(untilArrived(end, 1, 1)) << "on the device made anew";
  }
  ip("link del a0");
  ASSERT_TRUE(until([&] { return !sm_->pamCollection()->pamHas("a0"); }));
  send(1);
  ASSERT_TRUE(untilDrained());
  EXPECT_EQ(status_->noPam(), 1u);
  EXPECT_TRUE(sm_->desiredIntfDir()->entityNames().empty());
  EXPECT_TRUE(sm_->deviceIntfStatusDir()->entityNames().empty());
}

// While it lives, this process can open nothing.
class NoDescriptors {
 public:
  NoDescriptors() {
    getrlimit(RLIMIT_NOFILE, &former_);
    rlimit none = former_;
    const int lowestFree = dup(0);
    close(lowestFree);
    none.rlim_cur = static_cast<rlim_t>(lowestFree);
    setrlimit(RLIMIT_NOFILE, &none);
  }
  ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &former_); }
  NoDescriptors(const NoDescriptors&) = delete;
  NoDescriptors& operator=(const NoDescriptors&) = delete;

 private:
  rlimit former_{};
};

TEST_F(CpuPktSmTest, DevicesThatCouldNotBeOpenedAreTriedAgain) {
  VethPair a("a0", "a1"), cpu(cpuDevice, "cpu1");
  map(1, "a0");
  {
    const NoDescriptors none;
    ASSERT_TRUE(until([&] { return kernel_->device("a0") && kernel_->device(cpuDevice); }));
    EXPECT_FALSE(sm_->netdevInitialized());
    EXPECT_FALSE(sm_->pamCollection()->pamHas("a0"));
  }
  const ActivityLock lock;
  sm_->handlePeriod();
  EXPECT_TRUE(sm_->netdevInitialized());
  EXPECT_TRUE(sm_->pamCollection()->pamHas("a0"));
}

TEST_F(CpuPktSmTest, AHundredFlapsLeaveNothingBehind) {
  VethPair a("a0", "a1"), cpu(cpuDevice, "cpu1");
  map(1, "a0");
  ASSERT_TRUE(untilOpen("a0"));
  send(1);
  ASSERT_TRUE(untilDrained());
  const size_t descriptors = openDescriptors();
  const size_t bytes = Wirra::ThePacketManager().bytes();
  for (int flap = 0; flap < 100; ++flap) {
    deviceUpIs(flap % 4 ? "a0" : cpuDevice, false);
    send(1);
    deviceUpIs(flap % 4 ? "a0" : cpuDevice, true);
    if (flap % 10 == 0) a.remade();
    if (flap % 10 == 5) cpu.remade();
    if (flap % 10 == 0) until([&] { return queue_->txPktDesc().empty(); });
  }
  ASSERT_TRUE(untilOpen("a0"));
  ASSERT_TRUE(untilDrained());
  ASSERT_TRUE(until([&] {
    return sm_->netdevPam() &&
           static_cast<unsigned>(sm_->netdevPam()->ifIndex()) == if_nametoindex(cpuDevice);
  }));
  EXPECT_EQ(openDescriptors(), descriptors);
  EXPECT_EQ(Wirra::ThePacketManager().bytes(), bytes);
  FarEnd end("a1");
  next_[1] = 0;
  send(1);
  EXPECT_TRUE(untilArrived(end, 1, 1));
}

TEST_F(CpuPktSmTest, TheCpuDeviceIsBroughtUpAndItsPacketsGoToTheLibrary) {
  EXPECT_FALSE(sm_->netdevInitialized());
  send(1, 60, true);
  ASSERT_TRUE(untilDrained());
  EXPECT_EQ(status_->noPam(), 1u) << "for the forwarding plane, which nothing leads to";
  VethPair cpu(cpuDevice, "cpu1");
  ASSERT_TRUE(until([&] {
    const auto device = kernel_->device(cpuDevice);
    return sm_->netdevInitialized() && device->operUp() && device->mac() == macOfSwitch;
  }));
  FarEnd forwardingPlane("cpu1");
  send(5, 60, true);
  EXPECT_TRUE(untilArrived(forwardingPlane, 5, 1)) << "whatever its egress port";

  forwardingPlane.endpoint.send(markedPacket({0, 9, 0}, 60));
  ASSERT_TRUE(until([&] { return sm_->counts().received == 1; }));
  EXPECT_EQ(sm_->counts().droppedNoDevice, 1u) << "no pipeline, so no controller";
  assignDevice();
  constexpr uint64_t packets = 5000;
  for (uint64_t i = 0; i < packets; ++i) {
    ASSERT_TRUE(forwardingPlane.endpoint.send(markedPacket({1, 9, i}, 60 + i % 8900)));
  }
  ASSERT_TRUE(until([&] { return controllers_.checker.count(1, 9) == packets; }));
  EXPECT_EQ(controllers_.checker.faults(), "");
  EXPECT_EQ(sm_->counts().received, packets + 1);

  const ActivityLock lock;
  parts_->config->deviceIdIs(deviceId + 1);
  const auto packet = Wirra::ThePacketManager().packet(60);
  sm_->processPkt(packet);
  EXPECT_EQ(sm_->counts().droppedNoDevice, 2u) << "the library serves another device";
}

TEST_F(CpuPktSmTest, APacketThatTheLibraryRefusesIsAnAssertion) {
  assignDevice();
  pi_packetin_deregister_cb(deviceId);
  const ActivityLock lock;
  const auto packet = Wirra::ThePacketManager().packet(60);
  EXPECT_DEATH(sm_->processPkt(packet),
               "packet_in_receive failed with 37.*void P4Runtime::CpuPktSm::processPkt\\(const "
               "Ptr&\\).*status == PI_STATUS_SUCCESS");
}

}  // namespace
}  // namespace P4Runtime
