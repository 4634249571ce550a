// Packets over real devices of the kernel.
#include <fcntl.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <system_error>

#include "platform/wirra/devices/InterfaceOperations.h"
#include "tests/platform/wirra/Support.h"

namespace Wirra {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

class PacketAccessTest : public DeviceTest {};

TEST_F(PacketAccessTest, CarriesAllSizesBothWaysInOrder) {
  pairIs("left", "right", 65535);
  Port left(loop, "left");
  Port right(loop, "right");
  std::vector<Packet::Ptr> sent;
  unsigned number = 0;
  for (int round = 0; round < 100; ++round) {
    for (const size_t size : {14, 15, 60, 64, 1514, 9014, 65536}) {
      sent.push_back(packetOf(size, ++number));
    }
  }
  for (Port* from : {&left, &right}) {
    Port& to = from == &left ? right : left;
    size_t given = 0;  // in pieces, as room comes
    while (given < sent.size()) {
      std::vector<SendResult> results;
      from->packets->send(std::span(sent).subspan(given), &results);
      given += std::count(results.begin(), results.end(), SendResult::sent);
    }
    until([&] { return to.came.size() == sent.size(); });
    ASSERT_EQ(to.came.size(), sent.size());
    for (size_t i = 0; i < sent.size(); ++i) ASSERT_EQ(bytesOf(to.came[i]), bytesOf(sent[i])) << i;
    EXPECT_EQ(to.packets->counts().received, sent.size());
    EXPECT_EQ(to.packets->counts().receivedBytes, from->packets->counts().sentBytes);
    EXPECT_EQ(to.packets->counts().missed, 0);
  }
  EXPECT_EQ(left.came.size(), sent.size()) << "what a host sends does not come back to it";
}

TEST_F(PacketAccessTest, VlanTagsComeAsTheyWereSent) {
  pairIs("left", "right");
  Port left(loop, "left");
  Port right(loop, "right");
  std::vector<Packet::Ptr> sent;
  for (const int type : {0x8100, 0x88a8}) {
    const auto packet = packetOf(64, type);
    const uint8_t tag[] = {uint8_t(type >> 8), uint8_t(type), 0x60, 5, 0x81, 0, 0, 7};  // two tags
    std::copy(std::begin(tag), std::end(tag), packet->head() + 12);
    sent.push_back(packet);
  }
  EXPECT_THAT(left.send(sent), Each(SendResult::sent));
  until([&] { return right.came.size() == sent.size(); });
  for (size_t i = 0; i < sent.size(); ++i) EXPECT_EQ(bytesOf(right.came[i]), bytesOf(sent[i]));
}

// The one's complement sum of a datagram and its pseudo header, as a receiver checks it.
unsigned sumOf(const Packet::Ptr& packet, size_t addresses, size_t transport) {
  const auto bytes = packet->bytes();
  unsigned sum = 17 + static_cast<unsigned>(bytes.size() - transport);
  for (size_t at = addresses; at < bytes.size(); ++at) sum += bytes[at] << (at % 2 ? 0 : 8);
  while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
  return sum;
}

TEST_F(PacketAccessTest, ChecksumsLeftToHardwareAreThere) {
  std::ofstream("/proc/sys/net/ipv6/conf/default/disable_ipv6") << 0;
  pairIs("left", "right");
  ip("address add 10.0.0.1/24 dev left");
  ip("neighbour add 10.0.0.2 lladdr 02:00:00:00:00:02 dev left");
  ip("address add fd00::1/64 dev left nodad");
  ip("neighbour add fd00::2 lladdr 02:00:00:00:00:02 dev left");
  Port right(loop, "right");
  sh("bash -c 'echo -n odd >/dev/udp/10.0.0.2/7 && echo even. >/dev/udp/fd00::2/7'");
  const auto datagram = [&](int type, size_t protocolAt) {
    for (const auto& packet : right.came) {
      const auto bytes = packet->bytes();
      if (bytes[12] << 8 == (type & 0xff00) && bytes[13] == (type & 0xff) &&
          bytes[protocolAt] == 17) {
        return packet;
      }
    }
    return Packet::Ptr();
  };
  until([&] { return datagram(0x0800, 23) && datagram(0x86dd, 20); });
  EXPECT_EQ(sumOf(datagram(0x0800, 23), 26, 34), 0xffff);
  EXPECT_EQ(sumOf(datagram(0x86dd, 20), 22, 54), 0xffff);
}

TEST_F(PacketAccessTest, APacketsOwnFaultHoldsUpNoOther) {
  pairIs("left", "right", 1500);
  Port left(loop, "left");
  Port right(loop, "right", PacketAccessManager::Mode::sendOnly);
  EXPECT_THAT(
      left.send({packetOf(60, 1), packetOf(0), packetOf(13), packetOf(1515), packetOf(70000),
                 packetOf(60, 2), nullptr}),
      ElementsAre(SendResult::sent, SendResult::tooLong, SendResult::failed, SendResult::tooLong,
                  SendResult::tooLong, SendResult::sent, SendResult::tooLong));
  left.send({packetOf(13)});
  EXPECT_EQ(left.packets->trouble(),
            "left: a packet of 13 bytes is shorter than an Ethernet header");
  EXPECT_EQ(left.packets->counts().sent, 2);
  EXPECT_THAT(right.send({packetOf(1514, 3)}), ElementsAre(SendResult::sent));
  until([&] { return left.came.size() == 1; });
  EXPECT_EQ(right.packets->packets(10, &right.came), 0) << "it only sends";
}

TEST_F(PacketAccessTest, WhatCannotBeKeptIsCounted) {
  pairIs("left", "right", 65535);
  Port left(loop, "left");
  Port right(loop, "right");
  left.send({packetOf(60, 1), packetOf(65537), packetOf(60, 2)});  // longer than a packet may be
  until([&] { return right.came.size() == 2; });
  EXPECT_EQ(right.packets->counts().refused, 1);

  const size_t limit = ThePacketManager().byteLimit();
  std::vector<Packet::Ptr> more(3, packetOf(60, 3));
  ThePacketManager().byteLimitIs(ThePacketManager().bytes() + 100);
  left.send(more);
  until([&] { return right.packets->counts().refused == 3; });
  ThePacketManager().byteLimitIs(limit);
  EXPECT_EQ(right.came.size(), 3);

  constexpr uint64_t flood = 10000;  // more than the socket holds
  for (uint64_t i = 0; i < flood; ++i) left.send({more[0]});
  until([&] {
    const auto& counts = right.packets->counts();
    right.came.clear();
    return counts.received + counts.missed == 3 + flood;
  });
}

TEST_F(PacketAccessTest, NothingIsLostWhenTheDeviceIsFull) {
  pairIs("left", "right");
  Port left(loop, "left");
  Port right(loop, "right");
  sh("tc qdisc add dev left root bfifo limit 1");  // room for no packet at all
  unsigned spaces = 0;
  left.packets->onSpaceIs([&] {
    ++spaces;
    left.send({packetOf(60, 1)});
  });
  EXPECT_THAT(left.send({packetOf(60, 1), packetOf(60, 2)}), ElementsAre(SendResult::full));
  until([&] { return spaces >= 3; });  // it asks again, and does not spin
  sh("tc qdisc del dev left root");
  until([&] { return right.came.size() == 1; });
  const unsigned enough = spaces;
  turn();
  EXPECT_EQ(spaces, enough) << "there was space, so nobody waits for any";
}

TEST_F(PacketAccessTest, WhatTheOtherEndNeverTakesHoldsUpNoOtherForGood) {
  pairIs("left", "right", 9000);
  Port left(loop, "left");
  Port right(loop, "right");
  ip("link set right mtu 1500");
  std::vector<SendResult> results;
  const std::vector<Packet::Ptr> all = {packetOf(60, 1), packetOf(1600), packetOf(60, 2)};
  size_t done = 0;
  const std::function<void()> sendRest = [&] {
    left.packets->onSpaceIs(sendRest);
    results = left.send({all.begin() + static_cast<ptrdiff_t>(done), all.end()});
    for (const SendResult result : results) done += result == SendResult::full ? 0 : 1;
  };
  sendRest();
  EXPECT_THAT(results, ElementsAre(SendResult::sent, SendResult::full));
  until([&] { return done == all.size(); });
  EXPECT_THAT(results, ElementsAre(SendResult::failed, SendResult::sent));
  EXPECT_THAT(left.packets->trouble(), HasSubstr("left takes no packets of 1600 bytes"));
  EXPECT_THAT(left.send({packetOf(9000), packetOf(60, 3)}),
              ElementsAre(SendResult::failed, SendResult::sent))
      << "it is known by now";
  ip("link set right mtu 9000");
  EXPECT_THAT(left.send({packetOf(9000, 4)}), ElementsAre(SendResult::sent));
  until([&] { return right.came.size() == 4; });
}

TEST_F(PacketAccessTest, FollowsItsDeviceDownAndUpAndUnderAnotherName) {
  pairIs("left", "right");
  Port left(loop, "left");
  Port right(loop, "right");
  for (const std::string name : {"left", "other"}) {
    SCOPED_TRACE(name);
    ip("link set left down");
    EXPECT_THAT(left.send({packetOf(60), packetOf(60)}), ElementsAre(SendResult::noDevice));
    EXPECT_THAT(left.packets->trouble(), HasSubstr("left: Network is down"));
    turn();
    const unsigned wakeups = left.wakeups + right.wakeups;
    turn();
    EXPECT_EQ(left.wakeups + right.wakeups, wakeups) << "a device that is down is left alone";
    if (name != "left") ip("link set left name " + name);
    upAre(name, "right");
    left.came.clear();
    right.came.clear();
    EXPECT_THAT(left.send({packetOf(60, 1)}), ElementsAre(SendResult::sent));
    EXPECT_THAT(right.send({packetOf(60, 2)}), ElementsAre(SendResult::sent));
    until([&] { return left.came.size() == 1 && right.came.size() == 1; });
  }
}

TEST_F(PacketAccessTest, ADeviceThatWasMadeAnewIsAnotherOne) {
  EXPECT_THROW(Port(loop, "left"), std::system_error);
  pairIs("left", "right");
  Port old(loop, "left");
  ip("link del left");
  turn();
  pairIs("left", "right");
  EXPECT_THAT(old.send({packetOf(60)}), ElementsAre(SendResult::noDevice));
  Port left(loop, "left");
  Port right(loop, "right");
  right.send({packetOf(60)});
  until([&] { return left.came.size() == 1; });
  EXPECT_EQ(old.came.size(), 0);
  const unsigned wakeups = old.wakeups;
  turn();
  EXPECT_EQ(old.wakeups, wakeups);
}

TEST_F(PacketAccessTest, ATapReceivesWhatIsWrittenToIt) {
  if (access("/dev/net/tun", R_OK | W_OK) != 0) GTEST_SKIP() << "no /dev/net/tun";
  InterfaceOperations operations;
  TapDevice launcher("tap0");
  auto forwarder = std::make_optional<TapDevice>("tap0");  // as another process has it
  const auto small = packetOf(60);
  EXPECT_THAT(forwarder->packetIs(small->head(), 60).reason(), HasSubstr("tap0: it is down"));
  ASSERT_EQ(operations.up("tap0", "02:00:00:00:00:09", true).reason(), "");
  Port cpu(loop, "tap0");
  const auto large = packetOf(20000);  // larger than the device's MTU
  for (int i = 0; i < 100; ++i) {
    // What goes out of the device is read by nobody, and must not fill anything.
    EXPECT_THAT(cpu.send(std::vector<Packet::Ptr>(50, small)), Each(SendResult::sent));
    ASSERT_EQ(forwarder->packetIs(small->head(), small->size()).reason(), "");
    ASSERT_EQ(forwarder->packetIs(large->head(), large->size()).reason(), "");
  }
  until([&] { return cpu.came.size() == 200; });
  EXPECT_EQ(bytesOf(cpu.came[199]), bytesOf(large));

  forwarder.reset();  // the device stays, and the launcher can write, too
  ASSERT_EQ(launcher.packetIs(small->head(), small->size()).reason(), "");
  until([&] { return cpu.came.size() == 201; });
  ip("link add other type veth peer name another");
  EXPECT_THROW(TapDevice("other"), std::system_error);
  EXPECT_THROW(TapDevice("a-name-of-more-than-15"), std::system_error);
}

}  // namespace
}  // namespace Wirra
