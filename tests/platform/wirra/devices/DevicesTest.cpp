// The table of kernel devices, the interfaces made of it, and operations on devices.
#include <gmock/gmock.h>

#include "platform/wirra/devices/InterfaceOperations.h"
#include "platform/wirra/devices/KernelNetInterfaceSm.h"
#include "platform/wirra/interfaces/InterfaceStatusSm.h"
#include "tests/platform/wirra/Support.h"

namespace Wirra {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

class DevicesTest : public DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    if (!IsSkipped()) sm.emplace(loop, devices);
  }
  // The text of an attribute; "" while there is no such device.
  std::string text(const std::string& device, const char* attribute) {
    const auto entity = devices->device(device);
    return entity ? entity->attribute(attribute)->text() : "";
  }
  void untilNames(const std::vector<std::string>& names) {
    until([&] { return devices->entityNames() == names; });
    EXPECT_EQ(devices->entityNames(), names);
  }

  const Vela::Ptr<KernelNetInterfaceStatus> devices =
      Vela::make<KernelNetInterfaceStatus>("status");
  std::optional<KernelNetInterfaceSm> sm;
};

TEST_F(DevicesTest, TheTableIsAsTheKernelHasIt) {
  EXPECT_TRUE(devices->device("lo")->loopback());
  EXPECT_EQ(devices->device("lo")->mac(), "");
  ip("link add one index 70 address 02:00:00:00:00:01 type veth peer name two");
  untilNames({"lo", "one", "two"});
  EXPECT_EQ(text("one", "ifIndex"), "70");
  EXPECT_EQ(text("one", "mac"), "02:00:00:00:00:01");
  EXPECT_EQ(text("one", "kind"), "veth");
  EXPECT_FALSE(devices->device("one")->adminUp());
  ip("link set one mtu 4000 up");
  until([&] { return text("one", "mtu") == "4000" && devices->device("one")->adminUp(); });
  EXPECT_FALSE(devices->device("one")->operUp()) << "its peer is down";
  ip("link set two up");
  until([&] { return devices->device("one")->operUp(); });
  ip("link set two down");
  until([&] { return !devices->device("one")->operUp(); });

  const auto one = devices->device("one");
  ip("link add bridge type bridge");
  ip("link set one master bridge");
  ip("link set one nomaster");  // the bridge says that a port of it is gone; the device is not
  ip("link set one down");
  until([&] { return text("bridge", "kind") == "bridge" && !devices->device("one")->adminUp(); });
  EXPECT_EQ(devices->device("one"), one);
}

TEST_F(DevicesTest, ADeviceUnderAnotherNameOrMadeAnewIsAnotherEntity) {
  ip("link add one index 70 type veth peer name two index 71");
  untilNames({"lo", "one", "two"});
  const auto one = devices->device("one");
  ip("link set one name three");
  untilNames({"lo", "three", "two"});
  EXPECT_EQ(text("three", "ifIndex"), "70");
  ip("link set two name one");  // names swapped, all in one turn of the reactor
  ip("link set three name two");
  until([&] { return text("one", "ifIndex") == "71" && text("two", "ifIndex") == "70"; });
  EXPECT_EQ(devices->entityNames(), (std::vector<std::string>{"lo", "one", "two"}));

  const auto old = devices->device("two");
  ip("link del two");
  ip("link add two index 70 type veth peer name one index 71");
  until([&] { return devices->device("two") && devices->device("two").get() != old.get(); });
  untilNames({"lo", "one", "two"});
}

TEST_F(DevicesTest, WhatWasLostInAnOverrunIsReadAnew) {
  pairIs("gone", "goneToo");
  pairIs("stays", "peer");
  untilNames({"gone", "goneToo", "lo", "peer", "stays"});
  InterfaceOperations operations;
  ip("link del gone");
  for (int i = 0; i < 2000; ++i) {  // while nobody reads, until the kernel drops the news
    ASSERT_EQ(operations.mtuIs("stays", 1000 + i).reason(), "");
  }
  ip("link add fresh type veth peer name freshPeer");
  ASSERT_EQ(operations.down("stays").reason(), "");
  untilNames({"fresh", "freshPeer", "lo", "peer", "stays"});
  until([&] { return text("stays", "mtu") == "2999" && !devices->device("stays")->adminUp(); });
  ip("link del fresh");  // the news still come
  untilNames({"lo", "peer", "stays"});
}

TEST_F(DevicesTest, OperationsDoAsAskedOrSayWhyNot) {
  std::ofstream("/proc/sys/net/ipv6/conf/default/disable_ipv6") << 0;
  ip("link add one type veth peer name two");
  ip("link set two up");
  InterfaceOperations operations;
  EXPECT_EQ(operations.up("one", "02:00:00:00:00:07", false).reason(), "");
  until([&] {
    return text("one", "mac") == "02:00:00:00:00:07" && devices->device("one")->operUp();
  });
  EXPECT_NE(std::system("ip -6 address show dev one | grep -q fe80"), 0);
  EXPECT_EQ(operations.up("one", "02:00:00:00:00:07", true).reason(), "");
  EXPECT_EQ(operations.mtuIs("one", 1400).reason(), "");
  EXPECT_EQ(operations.down("one").reason(), "");
  until([&] { return !devices->device("one")->adminUp() && text("one", "mtu") == "1400"; });

  for (const char* mac : {"01:00:00:00:00:07", "02:00", "no address"}) {
    EXPECT_THAT(operations.up("one", mac, true).reason(),
                HasSubstr("is no MAC address of a device"));
  }
  EXPECT_THAT(operations.up("none", "", true).reason(), HasSubstr("network device none: "));
  EXPECT_THAT(operations.mtuIs("one", 100000).reason(), HasSubstr("give an MTU of 100000 to"));
}

TEST_F(DevicesTest, InterfacesFollowDevicesAndTheirConfiguration) {
  using namespace Interface;
  const Directories dirs{
      Vela::make<AllIntfStatusDir>("all"), Vela::make<AllIntfStatusLocalDir>("local"),
      Vela::make<AllEthPhyIntfStatusDir>("phy"), Vela::make<AllEthPhyIntfConfigDir>("config")};
  ip("link add early type veth peer name cpu");
  until([&] { return devices->device("cpu") != nullptr; });
  const InterfaceStatusSm interfaces(devices, dirs, Vela::make<InterfaceOperations>(), "cpu");
  EXPECT_THAT(dirs.all->entityNames(), ElementsAre("early"));

  const auto late = Vela::Ptr<EthPhyIntfConfig>(
      static_cast<EthPhyIntfConfig*>(dirs.ethPhyConfig->makeEntity("late").get()));
  late->mtuIs(2000);
  dirs.ethPhyConfig->entityIs("late", late);  // acts when the device comes
  ip("link add late type veth peer name latePeer");
  ip("link add bridge type bridge");
  const auto status = [&] { return static_cast<IntfStatus*>(dirs.all->entity("late").get()); };
  until([&] { return status() && status()->adminUp() && status()->mtu() == 2000; });
  EXPECT_FALSE(status()->operUp()) << "its other end is down";
  ip("link set latePeer up");
  until([&] { return status()->operUp(); });
  until([&] { return dirs.local->entityNames().size() == 4; });
  EXPECT_THAT(dirs.ethPhy->entityNames(), ElementsAre("early", "late", "latePeer"));
  EXPECT_EQ(status()->mac(), devices->device("late")->mac());
  late->mtuIs(70000);
  EXPECT_THAT(status()->trouble(),
              HasSubstr("cannot give an MTU of 70000 to the network device late"));
  late->mtuIs(0);
  EXPECT_EQ(status()->trouble(), "");
  late->enabledIs(false);
  until([&] { return !status()->adminUp(); });
  dirs.ethPhyConfig->entityDel("late");
  late->enabledIs(true);  // no one's any more
  ip("link set late mtu 1700");
  until([&] { return status()->mtu() == 1700; });
  EXPECT_FALSE(status()->adminUp());
  ip("link del late");
  until([&] { return dirs.all->entityNames() == std::vector<std::string>{"bridge", "early"}; });
  EXPECT_THAT(dirs.local->entityNames(), ElementsAre("bridge", "early"));
  EXPECT_THAT(dirs.ethPhy->entityNames(), ElementsAre("early"));

  for (const std::string name : {"", "a/b", "a b", "0123456789abcdef"}) {
    EXPECT_THROW(dirs.ethPhyConfig->makeEntity(name), Vela::BadValue) << name;
  }
}

}  // namespace
}  // namespace Wirra
