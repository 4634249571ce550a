// Order, batches and fairness of sending, on devices that obey the test.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "P4Runtime/packet/PacketTransmitter.h"
#include "platform/vela/ActivityLock.h"
#include "platform/wirra/packets/PacketManager.h"

namespace P4Runtime {
namespace {

using Vela::ActivityLock;
using Wirra::SendResult;

// Devices with room for so many packets; the packets they took, as "port:number".
class FakeDevices final : public TxWays {
 public:
  Way processTxPktDesc(const ControllerTxPktDesc& desc) override {
    if (!desc.pkt) return {"", TxDrop::noPacket};
    if (desc.flags.ingressProcessingEnabled()) return {"cpu", {}};
    const auto intf = intfOf.find(desc.egressP4PortId);
    if (intf == intfOf.end()) return {"", TxDrop::noMapping};
    return {intf->second, {}};
  }
  void send(const std::string& intf, std::span<const Wirra::Packet::Ptr> packets,
            std::vector<SendResult>* results) override {
    ++sends;
    for (const auto& packet : packets) {
      const auto bytes = packet->bytes();
      const auto fault = faults.find(bytes[1]);
      results->push_back(fault != faults.end()                               ? fault->second
                         : room.try_emplace(intf, 1000000).first->second > 0 ? SendResult::sent
                                                                             : SendResult::full);
      if (results->back() == SendResult::full || results->back() == SendResult::noDevice) return;
      if (results->back() != SendResult::sent) continue;
      --room[intf];
      took[intf].push_back({bytes[0], bytes[1]});
      all.push_back(took[intf].back());
    }
  }
  std::string trouble(const std::string&) const override { return "trouble"; }

  std::map<uint32_t, std::string> intfOf{{1, "a"}, {2, "b"}};
  std::map<std::string, int> room;
  std::map<uint8_t, SendResult> faults;  // by the packet's number
  std::map<std::string, std::vector<std::pair<int, int>>> took;
  std::vector<std::pair<int, int>> all;
  int sends = 0;
};

class PacketTransmitterTest : public testing::Test {
 protected:
  PacketTransmitterTest() : transmitter_(loop_, *queue_, *status_, devices_) {
    transmitter_.onTurnIs([this] { ++turns_; });
    wakes_ = queue_->txPktDesc().observe([this] { transmitter_.wake(); });
  }

  bool enq(uint8_t port, uint8_t number, bool ingress = false) {
    const ActivityLock lock;
    const auto packet = Wirra::ThePacketManager().packet(2);
    packet->head()[0] = port;
    packet->head()[1] = number;
    return queue_->txPktDescEnq({port, packet, ControllerTxPktFlags(ingress ? 1 : 0)});
  }
  void enqAll(uint8_t port, int first, int last) {
    for (int number = first; number <= last; ++number) enq(port, static_cast<uint8_t>(number));
  }
  void settle() {
    for (int turn = 0; turn < 50; ++turn) {
      loop_.post([this] { loop_.stop(); });
      loop_.run();
    }
  }
  void space(const std::string& intf, int room) {
    const ActivityLock lock;
    devices_.room[intf] = room;
    transmitter_.retryWaiting();
  }
  std::string took(const std::string& intf, int port) {
    std::string text;
    for (const auto& [of, number] : devices_.took[intf]) {
      if (of == port) text += (text.empty() ? "" : " ") + std::to_string(number);
    }
    return text;
  }

  Vela::ReactorLoop loop_;
  const Vela::Ptr<ControllerTxPktConfig> queue_ = controllerTxPktConfigFactory();
  const Vela::Ptr<ControllerTxPktStatus> status_ = Vela::make<ControllerTxPktStatus>("status");
  FakeDevices devices_;
  PacketTransmitter transmitter_;
  Vela::Observation wakes_;
  int turns_ = 0;
};

TEST_F(PacketTransmitterTest, AFullDeviceHoldsItsPortsPacketsBackInOrderAndNoOthers) {
  devices_.room["a"] = 2;
  for (uint8_t number = 1; number <= 5; ++number) {
    enq(1, number);
    enq(2, number);
  }
  settle();
  EXPECT_EQ(took("a", 1), "1 2");
  EXPECT_EQ(took("b", 2), "1 2 3 4 5");
  EXPECT_EQ(queue_->held(), 3u);
  const int sends = devices_.sends;
  enqAll(1, 6, 6);
  settle();
  EXPECT_EQ(devices_.sends, sends) << "nothing is tried until there is space";
  space("a", 2);
  settle();
  EXPECT_EQ(took("a", 1), "1 2 3 4");
  space("a", 100);
  settle();
  EXPECT_EQ(took("a", 1), "1 2 3 4 5 6");
  EXPECT_EQ(queue_->held(), 0u);
  EXPECT_EQ(status_->sent(), 11u);
}

// Or one slow port would use up the room of all.
TEST_F(PacketTransmitterTest, AFullDeviceTakesNoMoreThanItsShareOfTheQueue) {
  devices_.room["a"] = 0;
  for (size_t i = 0; i < ControllerTxPktConfig::laneShare; ++i) ASSERT_TRUE(enq(1, 1));
  settle();
  EXPECT_EQ(queue_->held(), ControllerTxPktConfig::laneShare);
  EXPECT_FALSE(enq(1, 1));
  EXPECT_TRUE(enq(2, 1));
  space("a", 1);
  settle();
  EXPECT_TRUE(enq(1, 1));
  EXPECT_EQ(queue_->refusedFull(), 1u);
}

// More packets than one call into the kernel takes: packets after the call that the device cut
// short wait behind the rest of that call.
TEST_F(PacketTransmitterTest, AFullDeviceCutsLongRunsShortInOrder) {
  constexpr int last = 200;
  enqAll(1, 1, last);
  for (const int room : {10, 20, 1000}) {
    space("a", room);
    settle();
  }
  ASSERT_EQ(devices_.all.size(), size_t{last});
  for (int number = 1; number <= last; ++number) {
    EXPECT_EQ(devices_.all[static_cast<size_t>(number - 1)].second, number);
  }
}

TEST_F(PacketTransmitterTest, WhatWaitsFollowsItsPortToAnotherInterface) {
  devices_.room["a"] = 1;
  enqAll(1, 1, 3);
  settle();
  devices_.intfOf[1] = "c";
  enqAll(1, 4, 4);
  space("a", 0);
  settle();
  EXPECT_EQ(took("a", 1), "1");
  EXPECT_EQ(took("c", 1), "2 3 4");
  devices_.intfOf.erase(1);
  enqAll(1, 5, 5);
  settle();
  EXPECT_EQ(status_->noMapping(), 1u);
}

TEST_F(PacketTransmitterTest, WhatCannotBeSentIsDroppedForItsReasonAlone) {
  const struct {
    SendResult fault;
    const uint64_t& (ControllerTxPktStatus::*count)() const;
  } cases[] = {{SendResult::tooLong, &ControllerTxPktStatus::tooLong},
               {SendResult::failed, &ControllerTxPktStatus::failed},
               {SendResult::noDevice, &ControllerTxPktStatus::deviceDown}};
  for (const auto& c : cases) {
    devices_.took.clear();
    devices_.faults = {{2, c.fault}, {4, c.fault}};
    enqAll(1, 1, 5);
    settle();
    EXPECT_EQ(took("a", 1), "1 3 5");
    EXPECT_EQ((*status_.*c.count)(), 2u);
  }
  EXPECT_EQ(status_->lastTrouble(), "trouble");
  EXPECT_EQ(status_->statusEntry().size(), 6u);
  const ActivityLock lock;
  queue_->txPktDescEnq({1, nullptr, {}});
  transmitter_.wake();
  {
    const Vela::ActivityLockReleased released;
    settle();
  }
  EXPECT_EQ(status_->noPacket(), 1u);
}

// A thousand packets are a few calls into the kernel, and other work comes between the turns.
TEST_F(PacketTransmitterTest, ALongQueueTakesSeveralTurnsOfFewCalls) {
  constexpr int packets = 1000;
  for (int i = 0; i < packets; ++i) enq(1, 1);
  settle();
  EXPECT_EQ(status_->sent(), uint64_t{packets});
  EXPECT_GE(turns_, 4);
  EXPECT_LE(devices_.sends, 20);
  EXPECT_EQ(transmitter_.taken(), uint64_t{packets});
}

TEST_F(PacketTransmitterTest, PacketsForTheForwardingPlaneAreALaneOfTheirOwn) {
  devices_.room["a"] = 0;
  enq(1, 1);
  enq(1, 2, true);
  enq(9, 3, true);
  settle();
  EXPECT_EQ(took("a", 1), "");
  EXPECT_EQ(took("cpu", 1) + " " + took("cpu", 9), "2 3");
}

// Whatever devices do, each port's packets come out complete and in order.
TEST_F(PacketTransmitterTest, NothingIsLostOrReorderedUnderChance) {
  std::mt19937 chance(20261121);
  std::map<int, int> numbers;
  for (int step = 0; step < 3000; ++step) {
    if (chance() % 3 != 0) {
      const uint8_t port = 1 + chance() % 3;
      devices_.intfOf.try_emplace(port, "a");
      enq(port, static_cast<uint8_t>(++numbers[port]));
    } else if (chance() % 4 == 0) {
      devices_.intfOf[1 + chance() % 3] = chance() % 2 ? "a" : "b";
    } else {
      space(chance() % 2 ? "a" : "b", static_cast<int>(chance() % 4));
    }
    if (chance() % 8 == 0) settle();
  }
  space("a", 100000);
  space("b", 100000);
  settle();
  std::map<int, uint8_t> last;
  for (const auto& [port, number] : devices_.all) {
    EXPECT_EQ(number, static_cast<uint8_t>(last[port] + 1)) << "port " << port;
    last[port] = static_cast<uint8_t>(number);
  }
  uint64_t queued = 0;
  for (const auto& [port, count] : numbers) queued += static_cast<uint64_t>(count);
  EXPECT_EQ(devices_.all.size(), queued);
  EXPECT_EQ(queue_->held(), 0u);
}

}  // namespace
}  // namespace P4Runtime
