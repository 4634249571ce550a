// From the header and packet of a controller to a descriptor in the queue.
#include <gtest/gtest.h>

#include "P4Runtime/packet/ControllerTxPktConfig.h"
#include "PI/target/pi_imp.h"
#include "platform/vela/ActivityLock.h"
#include "platform/wirra/packets/PacketManager.h"
#include "platform/wirra/packets/ShortFrame.h"
#include "tests/P4Runtime/support/AgentParts.h"

namespace P4Runtime {
namespace {

using namespace TestSupport;
using Vela::ActivityLock;

class PacketOutTest : public testing::Test {
 protected:
  PacketOutTest() : parts_(directory_.path()) {
    const ActivityLock lock;
    ThePiContext()->p4ControllerPktMetadataIs(parts_.controllerPktMetadata);
    ThePiContext()->controllerTxPktConfigIs(queue_);
  }
  void headerIs(const std::vector<P4ControllerPktMetadataField>& fields, bool isPacked = false) {
    const ActivityLock lock;
    parts_.controllerPktMetadata->metadataEntryDelAll();
    const auto header = parts_.controllerPktMetadata->metadataEntryIs("packet_out", 5);
    for (const auto& field : fields) {
      header->metadataFieldIs(field);
      if (isPacked) header->wireFieldEnq(field);
    }
  }
  pi_status_t send(const std::string& packet) {
    // In memory of exactly its size: a sanitizer sees reads beyond it.
    const std::vector<char> exact(packet.begin(), packet.end());
    return _pi_packetout_send(1, exact.data(), exact.size());
  }

  TempDir directory_;
  AgentParts parts_;
  const Vela::Ptr<ControllerTxPktConfig> queue_ = controllerTxPktConfigFactory();
};

const std::vector<P4ControllerPktMetadataField> usable{{1, "port", 32}, {2, "submit", 1}};

TEST_F(PacketOutTest, NeedsTheTwoFieldsThatItReads) {
  EXPECT_EQ(send(std::string(64, '\0')), PI_STATUS_PACKETOUT_SEND_ERROR) << "no packet_out at all";
  const struct {
    const char* what;
    std::vector<P4ControllerPktMetadataField> fields;
    pi_status_t status;
  } cases[] = {
      {"one field", {{1, "port", 32}}, PI_STATUS_PACKETOUT_SEND_ERROR},
      {"three fields", {{1, "a", 32}, {2, "b", 1}, {3, "c", 7}}, PI_STATUS_PACKETOUT_SEND_ERROR},
      {"a short port", {{1, "port", 9}, {2, "submit", 1}}, PI_STATUS_PACKETOUT_SEND_ERROR},
      {"a long flag", {{1, "port", 32}, {2, "submit", 9}}, PI_STATUS_PACKETOUT_SEND_ERROR},
      {"other ids", {{1, "port", 32}, {3, "submit", 1}}, PI_STATUS_PACKETOUT_SEND_ERROR},
      {"widths that fill the same bytes", {{2, "s", 8}, {1, "p", 25}}, PI_STATUS_SUCCESS},
      {"as it should be", usable, PI_STATUS_SUCCESS},
  };
  for (const auto& c : cases) {
    headerIs(c.fields);
    EXPECT_EQ(send(std::string(64, '\0')), c.status) << c.what;
  }
  EXPECT_EQ(queue_->txPktDesc().size(), 2u);
  EXPECT_EQ(queue_->refusedHeader(), 6u);
}

TEST_F(PacketOutTest, QueuesPortFlagAndPayload) {
  headerIs(usable);
  const struct {
    const char* what;
    const char* bytes;
    pi_status_t status;
    uint32_t port;
    bool ingress;
    const char* payload;
  } cases[] = {
      {"port, most significant byte first", "01020304 00 aabb", PI_STATUS_SUCCESS, 0x01020304,
       false, "aabb"},
      {"largest port, flag", "ffffffff 01 aa", PI_STATUS_SUCCESS, 0xffffffff, true, "aa"},
      {"any flag but zero", "00000007 02 aa", PI_STATUS_SUCCESS, 7, true, "aa"},
      {"empty payload", "00000007 80", PI_STATUS_SUCCESS, 7, true, ""},
      {"a byte too short", "00000007", PI_STATUS_PACKETOUT_SEND_ERROR, 0, false, ""},
      {"nothing", "", PI_STATUS_PACKETOUT_SEND_ERROR, 0, false, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_EQ(send(bytes(c.bytes)), c.status);
    const ActivityLock lock;
    ASSERT_EQ(queue_->txPktDesc().empty(), c.status != PI_STATUS_SUCCESS);
    if (c.status != PI_STATUS_SUCCESS) continue;
    const auto desc = queue_->txPktDesc().deq().second;
    EXPECT_EQ(desc.egressP4PortId, c.port);
    EXPECT_EQ(desc.flags.ingressProcessingEnabled(), c.ingress);
    const auto payload = desc.pkt->bytes();
    EXPECT_EQ(std::string(payload.begin(), payload.end()), bytes(c.payload));
  }
}

// Of a program's own layout: the agent serves the port that the header names, and hands all else to
// the forwarding plane as it came.
TEST_F(PacketOutTest, DecidesByFieldNamesOfAHeaderOnTheWire) {
  using Fields = std::vector<P4ControllerPktMetadataField>;
  const Fields padded{{1, "egress_port", 9}, {2, "_pad", 7}};
  const Fields flagged{{1, "hdr.out.egress-port", 9}, {2, "submit_to_ingress", 1}, {3, "_pad", 6}};
  const struct {
    const char* what;
    Fields fields;
    const char* bytes;
    pi_status_t status;
    uint32_t port;
    bool ingress;
    const char* packet;
  } cases[] = {
      {"port", padded, "ff80 aabb", PI_STATUS_SUCCESS, 0x1ff, false, "aabb"},
      {"padding does not count", padded, "007f aabb", PI_STATUS_SUCCESS, 0, false, "aabb"},
      {"port, flag not set", flagged, "0180 aa", PI_STATUS_SUCCESS, 3, false, "aa"},
      {"flag set", flagged, "01c0 aa", PI_STATUS_SUCCESS, 0, true, "01c0aa"},
      {"no port", {{1, "reason", 8}}, "07 aa", PI_STATUS_SUCCESS, 0, true, "07aa"},
      {"a port beyond all",
       {{1, "egress_port", 64}},
       "0000000100000000 aa",
       PI_STATUS_SUCCESS,
       0,
       true,
       "0000000100000000aa"},
      {"cut short", padded, "ff", PI_STATUS_PACKETOUT_SEND_ERROR, 0, false, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    headerIs(c.fields, true);
    ASSERT_EQ(send(bytes(c.bytes)), c.status);
    const ActivityLock lock;
    ASSERT_EQ(queue_->txPktDesc().empty(), c.status != PI_STATUS_SUCCESS);
    if (c.status != PI_STATUS_SUCCESS) continue;
    const auto desc = queue_->txPktDesc().deq().second;
    EXPECT_EQ(desc.flags.ingressProcessingEnabled(), c.ingress);
    EXPECT_EQ(desc.egressP4PortId, c.port);
    const auto packet = desc.pkt->bytes();
    EXPECT_EQ(std::string(packet.begin(), packet.end()), bytes(c.packet));
  }
}

TEST_F(PacketOutTest, HandsAllToTheProgramOnceItIsTold) {
  queue_->allToProgramIs(true);
  const struct {
    const char* what;
    std::vector<P4ControllerPktMetadataField> fields;
    bool isPacked;
  } cases[] = {
      {"no header", {}, false},
      {"a header as the agent would read it", usable, false},
      {"a port on the wire", {{1, "egress_port", 9}, {2, "_pad", 7}}, true},
      {"fields that mean nothing to the agent", {{1, "a", 3}, {2, "b", 5}, {3, "c", 7}}, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    if (!c.fields.empty()) headerIs(c.fields, c.isPacked);
    const std::string mark(Wirra::shortFrameMark.begin(), Wirra::shortFrameMark.end());
    for (const std::string& packet : {bytes("0180 00 aabbcc"), std::string(13, '\1'),
                                      std::string(14, '\0'), mark + "like a short frame"}) {
      const bool isShort = packet.size() < 14 || packet.starts_with(mark);
      ASSERT_EQ(send(packet), PI_STATUS_SUCCESS);
      const ActivityLock lock;
      ASSERT_FALSE(queue_->txPktDesc().empty());
      const auto desc = queue_->txPktDesc().deq().second;
      EXPECT_TRUE(desc.flags.ingressProcessingEnabled());
      const auto sent = desc.pkt->bytes();
      EXPECT_EQ(std::string(sent.begin(), sent.end()), isShort ? mark + packet : packet);
    }
  }
}

TEST_F(PacketOutTest, RefusesWhatThereIsNoRoomFor) {
  headerIs(usable);
  const std::string packet(1000, '\0');
  const size_t limit = Wirra::ThePacketManager().byteLimit();
  Wirra::ThePacketManager().byteLimitIs(0);
  EXPECT_EQ(send(packet), PI_STATUS_ALLOC_ERROR);
  Wirra::ThePacketManager().byteLimitIs(limit);
  for (size_t i = 0; i < ControllerTxPktConfig::capacity; ++i) {
    ASSERT_EQ(send(packet), PI_STATUS_SUCCESS);
  }
  EXPECT_EQ(send(packet), PI_STATUS_PACKETOUT_SEND_ERROR);
  EXPECT_EQ(queue_->refusedMemory(), 1u);
  EXPECT_EQ(queue_->refusedFull(), 1u);
}

}  // namespace
}  // namespace P4Runtime
