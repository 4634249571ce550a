// Packets through the front end of a device, to its target and from it.
#include <thread>

#include "PI/core/PacketCounts.h"
#include "PI/pi.h"
#include "tests/PI/frontend/support/FrontendTest.h"
#include "tests/PI/support/RefusedWith.h"

namespace pi::fe::proto {
namespace {

using p4::v1::StreamMessageRequest;
using p4::v1::StreamMessageResponse;
using testing::ElementsAre;
using testing::HasSubstr;
using TestSupport::RefusedWith;
using namespace std::string_literals;

StreamMessageRequest packetOut(const std::string& payload, const std::string& port = "\7") {
  StreamMessageRequest request;
  request.mutable_packet()->set_payload(payload);
  for (const auto& [id, value] : {std::pair(1, port), std::pair(2, "\1"s)}) {
    auto* metadata = request.mutable_packet()->add_metadata();
    metadata->set_metadata_id(id);
    metadata->set_value(value);
  }
  return request;
}

class PacketTest : public FrontendTest {
 protected:
  // The messages that the device hands to controllers from now on.
  void controllersListen() {
    device->streamResponseCbIs(
        [this](pi_dev_id_t, StreamMessageResponse* response, void* cookie) {
          EXPECT_EQ(cookie, this);
          packetsIn.push_back(std::move(*response->mutable_packet()));
        },
        this);
  }
  core::PacketCounts& counts() { return core::packetCountsOf(1); }

  std::vector<p4::v1::PacketIn> packetsIn;
};

TEST_F(PacketTest, OutReachesTheTargetBehindItsHeader) {
  pipelineIsUp();
  EXPECT_EQ(device->streamMessage(packetOut("frame")).code(), code::ok);
  EXPECT_THAT(target.sent(), ElementsAre("\0\0\0\7\1frame"s));
  EXPECT_EQ(device->streamMessage(packetOut("frame", "\1\0\0\0\0"s)).code(), code::invalidArgument);
  EXPECT_THAT(target.sent(), testing::SizeIs(1));
}

TEST_F(PacketTest, OutIsRefusedWithAWayOut) {
  EXPECT_EQ(device->streamMessage(packetOut("early")).code(), code::failedPrecondition);
  pipelineIsUp();
  const struct {
    const char* what;
    pi_status_t status;
    int code;
    const char* message;
  } cases[] = {
      {"never sent one", PI_STATUS_PACKETOUT_SEND_ERROR, code::failedPrecondition,
       "device 1 cannot use the pipeline's packet_out header"},
      {"sends", PI_STATUS_SUCCESS, code::ok, ""},
      {"queue full", PI_STATUS_PACKETOUT_SEND_ERROR, code::resourceExhausted,
       "send this one again"},
      {"no memory", PI_STATUS_ALLOC_ERROR, code::resourceExhausted, "no memory"},
      {"no packets at all", PI_STATUS_NOT_IMPLEMENTED_BY_TARGET, code::unimplemented, "device 1"},
      {"else", PI_STATUS_TARGET_ERROR, code::internal, "1000"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    target.packetStatusIs(c.status);
    const Status status = device->streamMessage(packetOut("frame"));
    EXPECT_THAT(status, RefusedWith(c.code, c.message));
  }
}

TEST_F(PacketTest, GoWhileWritesAreRefusedButNotWithoutAUsablePipeline) {
  pipelineIsUp();
  DeviceMgr::set_operation_permission_level(1);
  EXPECT_EQ(device->streamMessage(packetOut("frame")).code(), code::ok);
  DeviceMgr::set_operation_permission_level(0);
  EXPECT_EQ(device->streamMessage(packetOut("frame")).code(), code::failedPrecondition);
}

TEST_F(PacketTest, WaitForNoWrite) {
  pipelineIsUp();
  controllersListen();
  target.batchesAreHeld();
  std::thread writer([&] { inserted(test::exact(test::kCounted, 1)); });
  target.awaitHeldBatch();
  EXPECT_EQ(device->streamMessage(packetOut("frame")).code(), code::ok);
  EXPECT_EQ(target.punted("\0\1frame"s), PI_STATUS_SUCCESS);
  EXPECT_THAT(packetsIn, testing::SizeIs(1));
  target.batchesAreReleased();
  writer.join();
}

TEST_F(PacketTest, InReachesControllersWithoutItsHeaderOrIsCounted) {
  pipelineIsUp();
  const uint64_t malformed = counts().inMalformed.get();
  const uint64_t unheard = counts().inNoPrimary.get();
  EXPECT_EQ(target.punted("\0\1frame"s), PI_STATUS_SUCCESS);
  EXPECT_EQ(counts().inNoPrimary.get(), unheard + 1);
  controllersListen();
  EXPECT_EQ(target.punted("\1\7frame"s), PI_STATUS_SUCCESS);
  EXPECT_EQ(target.punted("\0"s), PI_STATUS_SUCCESS);
  EXPECT_THAT(counts().lastMalformed(), HasSubstr("shorter than the 2 bytes"));
  EXPECT_EQ(target.punted("\2\7frame"s), PI_STATUS_SUCCESS);
  EXPECT_THAT(counts().lastMalformed(), HasSubstr("ingress_port (id 1, 9 bits)"));
  EXPECT_EQ(counts().inMalformed.get(), malformed + 2);
  p4::v1::PacketIn expected;
  expected.set_payload("frame");
  expected.add_metadata()->set_metadata_id(1);
  expected.mutable_metadata(0)->set_value("\1\7");
  EXPECT_THAT(packetsIn, ElementsAre(EqualsProto(expected)));
}

// The target takes it for a broken switch when nobody takes the packet of a device that is there:
// packets came while the server was restarted for another port. It may have begun on one when the
// device is removed, which then waits for its lock.
TEST_F(PacketTest, InIsTakenAtAnyMomentOfADevicesLife) {
  std::vector<pi_status_t> statuses;
  target.onDeviceCallIs([&] { statuses.push_back(target.punted("\0\1frame"s)); });
  pi_packetin_deregister_default_cb();  // it would take all
  pipelineIsUp();
  device.reset();
  target.onDeviceCallIs(nullptr);
  EXPECT_THAT(statuses, ElementsAre(PI_STATUS_SUCCESS, PI_STATUS_SUCCESS));
  EXPECT_EQ(target.punted("after all"), PI_STATUS_PACKETIN_NO_CB);
  device.emplace(1, std::chrono::milliseconds(0));
  device.reset();
  EXPECT_EQ(target.punted("after all"), PI_STATUS_SUCCESS);
}

TEST_F(PacketTest, OtherStreamMessagesAreRefusedByName) {
  pipelineIsUp();
  StreamMessageRequest request;
  EXPECT_EQ(device->streamMessage(request).code(), code::invalidArgument);
  request.mutable_digest_ack()->set_digest_id(0x17000001);
  EXPECT_THAT(device->streamMessage(request), RefusedWith(code::unimplemented, "digests"));
  request.mutable_digest_ack()->set_digest_id(test::kIpv4);
  EXPECT_THAT(device->streamMessage(request),
              RefusedWith(code::invalidArgument, "table ingress.ipv4"));
  request.mutable_other()->set_type_url("x/y");
  EXPECT_EQ(device->streamMessage(request).code(), code::unimplemented);
}

}  // namespace
}  // namespace pi::fe::proto
