// The packet-out queue, its flags, and how many of its failures are kept.
#include <gtest/gtest.h>

#include "P4Runtime/packet/ControllerTxPktConfig.h"
#include "P4Runtime/packet/ControllerTxPktStatus.h"
#include "platform/vela/ActivityLock.h"
#include "platform/vela/Exception.h"
#include "platform/wirra/packets/PacketManager.h"

namespace P4Runtime {
namespace {

TEST(ControllerTxPktValues, FlagsRefuseBitsThatMeanNothing) {
  ControllerTxPktFlags flags(1);
  EXPECT_TRUE(flags.ingressProcessingEnabled());
  try {
    flags.valueIs(2);
    FAIL() << "2 is no value of the flags";
  } catch (const Vela::Exception& e) {
    EXPECT_STREQ(e.what(), "ControllerTxPktFlags::value > 0x1 not allowed");
  }
  EXPECT_EQ(flags.value(), 1u) << "as it was";
}

// Those that wait for their device count, too; only the step from none to some wakes anybody.
TEST(ControllerTxPktQueue, IsBoundedAndTellsWhenItStopsBeingEmpty) {
  const Vela::ActivityLock lock;
  const auto queue = controllerTxPktConfigFactory();
  int told = 0;
  const auto observation = queue->txPktDesc().observe([&] { ++told; });
  queue->heldIs(ControllerTxPktConfig::capacity - 2);
  EXPECT_TRUE(queue->txPktDescEnq({1, nullptr, {}}));
  EXPECT_TRUE(queue->txPktDescEnq({2, nullptr, {}}));
  EXPECT_FALSE(queue->txPktDescEnq({3, nullptr, {}}));
  EXPECT_EQ(queue->refusedFull(), 1u);
  EXPECT_EQ(told, 1);
  EXPECT_EQ(queue->txPktDesc().deq().first, 1u);
  const auto [key, desc] = queue->txPktDesc().deq();
  EXPECT_EQ(key, 2u);
  EXPECT_EQ(desc.egressP4PortId, 2u);
  EXPECT_TRUE(queue->txPktDescEnq({3, nullptr, {}}));
  EXPECT_EQ(told, 2);
}

TEST(ControllerTxPktStatus, KeepsTheLatestFailuresAndNoPackets) {
  const Vela::ActivityLock lock;
  const size_t bytes = Wirra::ThePacketManager().bytes();
  const auto status = Vela::make<ControllerTxPktStatus>("status");
  constexpr uint64_t last = 3 * ControllerTxPktStatus::mostEntries;
  for (uint64_t key = 1; key <= last; ++key) {
    const ControllerTxPktDesc desc{7, Wirra::ThePacketManager().packet(1000), {}};
    status->recordDrop(key, desc, TxDrop::noMapping);
  }
  EXPECT_EQ(status->noMapping(), last);
  EXPECT_EQ(status->statusEntry().size(), ControllerTxPktStatus::mostEntries);
  EXPECT_EQ(status->statusEntry(last).txPktDesc.egressP4PortId, 7u);
  EXPECT_EQ(status->statusEntry(last).result, ControllerTxPktResult::packetTxResultFailed);
  EXPECT_EQ(Wirra::ThePacketManager().bytes(), bytes);
}

}  // namespace
}  // namespace P4Runtime
