// Which mapping is in force when ports come, move, conflict and go; and the VRFs of the kernel.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <set>

#include "P4Runtime/agent/CliCommands.h"
#include "P4Runtime/agent/PortMappingDirSm.h"
#include "P4Runtime/agent/VrfIdCollection.h"
#include "P4Runtime/companion/P4RtSystemConfig.h"
#include "platform/vela/ActivityLock.h"

namespace P4Runtime {
namespace {

using P4RuntimeConfig::PortMappingConfig;
using P4RuntimeConfig::PortMappingConfigDir;
using P4RuntimeConfig::PortMappingStatus;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

class PortMappingTest : public testing::Test {
 protected:
  void start() { sm = Vela::make<PortMappingDirSm>(configs, status, "p4controller"); }
  void map(const std::string& port, const std::string& intf) {
    if (!configs->entityHas(port)) {
      const auto config = Vela::make<PortMappingConfig>(port);
      config->intfIs(intf);
      configs->entityIs(port, config);
    } else {
      dynamic_cast<PortMappingConfig&>(*configs->entity(port)).intfIs(intf);
    }
  }
  const auto& inForce() const { return status->intfOfPortCollection().values(); }
  const auto& refused() const { return status->refusedCollection().values(); }
  // "" when both ways of the mapping agree and no interface has two ports.
  std::string disagreement() const {
    std::set<std::string> taken;
    for (const auto& [port, intf] : inForce()) {
      if (!taken.insert(intf).second) return intf + " has two ports";
      if (status->portOfIntf(intf) != port) return intf + " does not lead back";
    }
    return status->portOfIntfCollection().values().size() == taken.size() ? "" : "left behind";
  }

  const Vela::ActivityLock lock;
  Vela::Ptr<PortMappingConfigDir> configs = Vela::make<PortMappingConfigDir>("configs");
  Vela::Ptr<PortMappingStatus> status = Vela::make<PortMappingStatus>("status");
  Vela::Ptr<PortMappingDirSm> sm;
};

TEST_F(PortMappingTest, TheFirstKeepsTheInterfaceAndTheNextFollows) {
  map("10", "veth1");  // there before the start: in the order of ids
  map("9", "veth1");
  start();
  EXPECT_THAT(inForce(), UnorderedElementsAre(Pair(9u, "veth1")));
  EXPECT_EQ(status->refused("10"),
            "interface veth1 belongs to port 9; unmap that port or choose another interface");
  map("3", "veth1");
  map("9", "veth1");  // again: it keeps its place
  EXPECT_THAT(inForce(), UnorderedElementsAre(Pair(9u, "veth1")));
  map("9", "veth2");
  EXPECT_THAT(inForce(), UnorderedElementsAre(Pair(9u, "veth2"), Pair(10u, "veth1")));
  EXPECT_THAT(refused(), ElementsAre(Pair("3", HasSubstr("belongs to port 10"))));
  map("10", "veth2");  // goes from where it was, and is refused where it goes
  EXPECT_THAT(inForce(), UnorderedElementsAre(Pair(9u, "veth2"), Pair(3u, "veth1")));
  configs->entityDel("9");
  map("3", "");
  EXPECT_THAT(inForce(), UnorderedElementsAre(Pair(10u, "veth2")));
  EXPECT_THAT(refused(), IsEmpty());
  EXPECT_EQ(disagreement(), "");
}

TEST_F(PortMappingTest, ACommandThatIsRefusedChangesNothing) {
  Vela::ReactorLoop loop;
  const auto database = Orrery::embeddedDatabase(loop);
  database->entityIs("p4runtime/config/port-mapping", configs);
  database->entityIs("p4runtime/status/port-mapping", status);
  database->entityIs("p4runtime/config/agent", Vela::make<AgentConfig>("agent"));
  for (const auto& [port, intf] :
       {std::pair("0", "veth9"), {"5", "veth0"}, {"6", "veth1"}, {"7", "veth0"}}) {
    map(port, intf);
  }
  start();  // 7 waits for the interface of 5
  const CliCommand command = cliCommands(*database).at("port map");
  const auto before = inForce();
  for (const char* intf : {"veth1", "veth9", "a-name-of-16-chars", "p4controller", ""}) {
    EXPECT_THROW(command.run({"5", intf}), std::runtime_error) << intf;
    EXPECT_EQ(inForce(), before) << intf;
  }
  EXPECT_EQ(command.run({"5", "veth2"}), "port 5 is interface veth2");
  EXPECT_EQ(command.run({"8", "veth3"}), "port 8 is interface veth3");
  EXPECT_THAT(inForce(),
              UnorderedElementsAre(Pair(0u, "veth9"), Pair(5u, "veth2"), Pair(6u, "veth1"),
                                   Pair(7u, "veth0"), Pair(8u, "veth3")));
}

TEST_F(PortMappingTest, WhatIsNoPortOrNoInterfaceIsRefusedByName) {
  start();
  const struct {
    const char* port;
    std::string intf;
    const char* reason;  // null: none
  } cases[] = {
      {"0", "veth0", nullptr},
      {"00", "veth1", "no P4 port id"},
      {"01", "veth1", "no P4 port id"},
      {"4294967296", "veth1", "no P4 port id"},
      {"-1", "veth1", "no P4 port id"},
      {"eth", "veth1", "no P4 port id"},
      {"4294967295", "fifteen.letters", nullptr},
      {"2", "sixteen.letters.", "longer than 15 characters"},
      {"3", "a/b", "no name of an interface"},
      {"4", "a b", "no name of an interface"},
      {"5", "..", "no name of an interface"},
      {"6", "", nullptr},
      {"7", "p4controller", "is the CPU's"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.port) + " " + c.intf);
    map(c.port, c.intf);
    EXPECT_EQ(status->refusedHas(c.port), c.reason != nullptr);
    EXPECT_THAT(status->refused(c.port), HasSubstr(c.reason ? c.reason : ""));
    if (c.reason && std::string(c.reason) == "no P4 port id") {
      EXPECT_THROW(configs->makeEntity(c.port), Vela::BadValue);
    }
  }
  EXPECT_THAT(inForce(),
              UnorderedElementsAre(Pair(0u, "veth0"), Pair(4294967295u, "fifteen.letters")));
}

TEST_F(PortMappingTest, ObserversNeverFindTwoPortsOnOneInterface) {
  start();
  std::string trouble;
  unsigned gaps = 0;
  const auto look = [&] {
    std::set<std::string> taken;
    for (const auto& [port, intf] : inForce()) {
      if (!taken.insert(intf).second) trouble = intf + " has two ports";
    }
    for (const auto& [intf, port] : status->portOfIntfCollection().values()) {
      const std::string& back = status->intfOfPort(port);
      if (!back.empty() && back != intf && status->portOfIntfHas(back)) trouble = "two interfaces";
    }
  };
  const auto ports = status->intfOfPortCollection().observeKeys([&](const std::string& port) {
    look();
    if (port == "1" && !status->intfOfPortHas(1)) ++gaps;
  });
  const auto intfs = status->portOfIntfCollection().observe(look);
  map("1", "a");
  map("1", "b");
  EXPECT_EQ(gaps, 0u) << "a move to a free interface";
  std::mt19937 random(7);
  for (int i = 0; i < 2000; ++i) {
    const std::string port = std::to_string(1 + random() % 6);
    if (random() % 5 == 0) {
      configs->entityDel(port);
    } else {
      map(port, std::string(1, static_cast<char>('a' + random() % 5)));
    }
    ASSERT_EQ(trouble, "") << "step " << i;
    ASSERT_EQ(disagreement(), "") << "step " << i;
  }
}

TEST(VrfIdCollection, HasTheKernelsVrfsAndFollowsThem) {
  const Vela::ActivityLock lock;
  const auto devices = Vela::make<Wirra::KernelNetInterfaceStatus>("devices");
  const auto device = [&](const std::string& name, uint32_t table) {
    const auto made = Vela::make<Wirra::KernelNetInterface>(name);
    made->vrfTableIs(table);
    devices->entityIs(name, made);
    return made;
  };
  device("eth0", 0);
  const auto blue = device("blue", 10);
  const auto vrfs = Vela::make<VrfIdCollection>("vrfs");
  vrfs->kernelNetInterfaceStatusIs(devices);
  device("red", 20);
  blue->vrfTableIs(11);
  EXPECT_THAT(vrfs->vrfIdCollection().values(),
              UnorderedElementsAre(Pair("blue", 11u), Pair("red", 20u)));
  EXPECT_EQ(vrfs->vrfName(11), "blue");
  EXPECT_FALSE(vrfs->vrfNameHas(10));
  devices->entityDel("red");
  device("blue", 20);  // another device of that name
  EXPECT_THAT(vrfs->vrfNameCollection().values(), UnorderedElementsAre(Pair(20u, "blue")));
}

}  // namespace
}  // namespace P4Runtime
