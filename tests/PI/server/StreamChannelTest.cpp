// Streams over real gRPC: arbitration and stream errors.
#include <gmock/gmock.h>

#include <future>

#include "PI/proto/pi_server.h"
#include "tests/PI/server/ServerFixture.h"
#include "tests/PI/support/RefusedWith.h"

namespace {

using p4::v1::StreamMessageRequest;
using p4::v1::StreamMessageResponse;
using testing::HasSubstr;
using TestSupport::RefusedWith;

StreamMessageRequest packetOut(const std::string& payload) {
  StreamMessageRequest request;
  request.mutable_packet()->set_payload(payload);
  return request;
}

TEST_F(ServerTest, BackupHearsOfThePrimaryAndOfItsEnd) {
  Controller primary(*stub_, deviceId_);
  Controller backup(*stub_, deviceId_);
  EXPECT_EQ(primary.arbitrate(10), StatusCode::OK);
  EXPECT_EQ(backup.arbitrate(5), StatusCode::ALREADY_EXISTS);
  primary.disconnect();
  const StreamMessageResponse notice = backup.next();
  EXPECT_EQ(notice.arbitration().status().code(), StatusCode::NOT_FOUND);
  EXPECT_EQ(notice.arbitration().device_id(), deviceId_);
  EXPECT_EQ(notice.arbitration().election_id().low(), 10u);
  EXPECT_FALSE(notice.arbitration().has_role());
  EXPECT_EQ(backup.arbitrate(11), StatusCode::OK);
}

TEST_F(ServerTest, NoticesNameTheRoleAsTheClientGaveIt) {
  Controller named(*stub_, deviceId_, "routing");
  named.sendArbitration(1);
  EXPECT_EQ(named.next().arbitration().role().name(), "routing");
  Controller numbered(*stub_, deviceId_);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  numbered.update.mutable_role()->set_id(7);
  numbered.sendArbitration(1);
  const StreamMessageResponse notice = numbered.next();
  EXPECT_EQ(notice.arbitration().role().id(), 7u);
  EXPECT_EQ(notice.arbitration().status().code(), StatusCode::OK);
  // The number is a role of its own: it gives no rights to the default role.
  ASSERT_TRUE(push().ok());
  p4::v1::WriteRequest request = writeRequest(1);
  EXPECT_EQ(write(request).error_code(), StatusCode::PERMISSION_DENIED);
  request.set_role_id(7);
  EXPECT_EQ(write(request).error_code(), StatusCode::OK);
#pragma GCC diagnostic pop
}

class DeviceZeroTest : public ServerTest {
 protected:
  DeviceZeroTest() : ServerTest(0) {}
};

TEST_F(DeviceZeroTest, IsADeviceLikeAnyOther) {
  const auto primary = served(10);
  EXPECT_TRUE(write(10).ok());
  Controller other(*stub_, 1);
  other.sendArbitration(11);
  EXPECT_EQ(other.ended().error_code(), StatusCode::NOT_FOUND);
}

TEST_F(ServerTest, BadArbitrationEndsTheStream) {
  ASSERT_TRUE(push().ok());
  Controller holder(*stub_, deviceId_);
  ASSERT_EQ(holder.arbitrate(10), StatusCode::OK);
  const struct {
    const char* what;
    std::function<void(Controller&)> send;
    StatusCode code;
    const char* message;
  } cases[] = {
      {"device 0",
       [](Controller& c) {
         c.update.set_device_id(0);
         c.sendArbitration(1);
       },
       StatusCode::NOT_FOUND, "unknown device 0"},
      {"an id that another client holds", [](Controller& c) { c.sendArbitration(10); },
       StatusCode::INVALID_ARGUMENT, "election id 10 of role ''"},
      {"a role config",
       [](Controller& c) {
         c.update.mutable_role()->set_name("operator");
         c.update.mutable_role()->mutable_config()->set_type_url("x/y");
         c.sendArbitration(1);
       },
       StatusCode::INVALID_ARGUMENT, "config of type 'x/y'"},
      {"a long role config",
       [](Controller& c) {
         c.update.mutable_role()->set_name("operator");
         auto& config = *c.update.mutable_role()->mutable_config();
         config.set_type_url("type.googleapis.com/stratum.P4RoleConfig");
         config.set_value(std::string(1 << 20, 'x'));
         c.sendArbitration(1);
       },
       StatusCode::INVALID_ARGUMENT, "send at most 65536"},
      {"another device",
       [](Controller& c) {
         c.arbitrate(1);
         c.update.set_device_id(c.update.device_id() + 1000);
         c.sendArbitration(1);
       },
       StatusCode::FAILED_PRECONDITION, "open another one"},
      {"another role",
       [](Controller& c) {
         c.arbitrate(1);
         c.update.mutable_role()->set_name("x");
         c.sendArbitration(1);
       },
       StatusCode::FAILED_PRECONDITION, "open another one"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Controller controller(*stub_, deviceId_);
    c.send(controller);
    const grpc::Status status = controller.ended();
    EXPECT_THAT(status, RefusedWith(c.code, c.message));
  }
}

TEST_F(ServerTest, AnyDevicePassesUntilOneHasItsPipeline) {
  Controller early(*stub_, deviceId_ + 1000);
  EXPECT_EQ(early.arbitrate(1), StatusCode::OK);
  ASSERT_TRUE(push().ok());
  Controller late(*stub_, deviceId_ + 1000);
  late.sendArbitration(2);
  const grpc::Status status = late.ended();
  EXPECT_EQ(status.error_code(), StatusCode::NOT_FOUND);
  EXPECT_THAT(status.error_message(),
              HasSubstr("this switch serves device " + std::to_string(deviceId_)));
  early.sendArbitration(3);
  EXPECT_EQ(early.ended().error_code(), StatusCode::NOT_FOUND);
}

// Nobody's thread waits: while the former primary's Write runs, the new primary's stream and other
// roles are served.
TEST_F(ServerTest, ANewPrimaryIsInstalledWhenTheFormerOnesWritesAreDone) {
  const auto former = served(10);
  std::promise<void> begun;
  std::promise<void> release;
  TheFakeDevice().onWrite = [&](const p4::v1::WriteRequest&) {
    begun.set_value();
    awaited(release, "the test lets the Write go on");
    return FakeDevice::Status();
  };
  auto running = std::async(std::launch::async, [&] { return write(10); });
  awaited(begun, "the Write has begun");

  Controller next(*stub_, deviceId_);
  next.sendArbitration(11);
  EXPECT_EQ(former->nextNotice(), StatusCode::ALREADY_EXISTS);
  EXPECT_EQ(write(10).error_code(), StatusCode::PERMISSION_DENIED);
  EXPECT_EQ(write(11).error_code(), StatusCode::PERMISSION_DENIED);
  Controller other(*stub_, deviceId_, "other");
  EXPECT_EQ(other.arbitrate(1), StatusCode::OK);
  release.set_value();
  EXPECT_TRUE(awaited(running, "the Write has ended").ok());
  EXPECT_EQ(next.nextNotice(), StatusCode::OK);
  TheFakeDevice().onWrite = nullptr;
  EXPECT_TRUE(write(11).ok());
}

TEST_F(ServerTest, StreamErrorsNameTheRequestAndLeaveTheStreamOpen) {
  TheFakeDevice().onStreamMessage = [](const StreamMessageRequest&) {
    return statusOf(StatusCode::UNIMPLEMENTED, "packet out is not supported");
  };
  const auto primary = served();

  primary->send(packetOut("out"));
  StreamMessageResponse answer = primary->next();
  EXPECT_EQ(answer.error().canonical_code(), StatusCode::UNIMPLEMENTED);
  EXPECT_EQ(answer.error().message(), "packet out is not supported");
  EXPECT_EQ(answer.error().packet_out().packet_out().payload(), "out");

  StreamMessageRequest request;
  request.mutable_digest_ack()->set_digest_id(5);
  primary->send(request);
  EXPECT_EQ(primary->next().error().digest_list_ack().digest_list_ack().digest_id(), 5u);

  request.mutable_other()->set_type_url("x/y");
  primary->send(request);
  answer = primary->next();
  EXPECT_EQ(answer.error().canonical_code(), StatusCode::UNIMPLEMENTED);
  EXPECT_EQ(answer.error().other().other().type_url(), "x/y");
  request.mutable_other()->set_type_url("x\n" + std::string(100'000, 'y'));
  primary->send(request);
  EXPECT_EQ(primary->next().error().message(),
            "stream messages of type 'x " + std::string(126, 'y') + "...' are not supported");

  primary->send(StreamMessageRequest());
  EXPECT_EQ(primary->next().error().canonical_code(), StatusCode::INVALID_ARGUMENT);
  EXPECT_TRUE(write(10).ok());
}

TEST_F(ServerTest, ABeforeArbitrationPacketIsRefusedAndTheStreamGoesOn) {
  ASSERT_TRUE(push().ok());
  Controller controller(*stub_, deviceId_);
  controller.send(packetOut("early"));
  EXPECT_EQ(controller.next().error().canonical_code(), StatusCode::PERMISSION_DENIED);
  EXPECT_EQ(controller.arbitrate(1), StatusCode::OK);
}

}  // namespace
