// Packets between the device and its controllers, over real gRPC.
#include <gmock/gmock.h>

#include <atomic>
#include <future>
#include <mutex>

#include "PI/proto/pi_server.h"
#include "tests/PI/server/ServerFixture.h"

namespace {

using p4::v1::StreamMessageRequest;
using p4::v1::StreamMessageResponse;
using testing::ElementsAre;

constexpr int kFlood = 8192;
constexpr size_t kFloodBytes = 16 << 10;  // of each; 128 MiB that nobody reads

class PacketStreamTest : public ServerTest {
 protected:
  static StreamMessageRequest packetOut(const std::string& payload) {
    StreamMessageRequest request;
    request.mutable_packet()->set_payload(payload);
    return request;
  }
  void punt(const std::string& payload) {
    StreamMessageResponse response;
    response.mutable_packet()->set_payload(payload);
    TheFakeDevice().emit(deviceId_, response);
  }
  void puntMoreThanFits() {
    for (int i = 0; i < kFlood; ++i) punt(std::string(kFloodBytes, 'x'));
    EXPECT_GT(counts().in_slow, 0u);
    EXPECT_EQ(counts().in + counts().in_slow, uint64_t{kFlood});
  }
  PIGrpcServerPacketCounts_t counts() const {
    PIGrpcServerPacketCounts_t counts{};
    PIGrpcServerGetPacketCounts(deviceId_, &counts);
    return counts;
  }
  // All earlier messages of the controller have been dealt with.
  static void settled(Controller& controller, uint64_t electionId) {
    controller.sendArbitration(electionId);
    while (!controller.next().has_arbitration()) {
    }
  }
};

TEST_F(PacketStreamTest, OutReachesTheDeviceInOrderAndOnlyFromThePrimary) {
  std::mutex mutex;
  std::vector<std::string> taken;
  TheFakeDevice().onStreamMessage = [&](const StreamMessageRequest& request) {
    const std::lock_guard lock(mutex);
    taken.push_back(request.packet().payload());
    return statusOf(0);
  };
  const auto primary = served(10);
  Controller backup(*stub_, deviceId_);
  backup.arbitrate(5);
  backup.send(packetOut("not mine"));
  const StreamMessageResponse refused = backup.next();
  EXPECT_EQ(refused.error().canonical_code(), StatusCode::PERMISSION_DENIED);
  EXPECT_EQ(refused.error().packet_out().packet_out().payload(), "not mine");
  EXPECT_EQ(backup.arbitrate(6), StatusCode::ALREADY_EXISTS);  // the stream goes on
  std::vector<std::string> sent;
  for (int i = 0; i < 1000; ++i) {
    sent.push_back(std::to_string(i));
    primary->send(packetOut(sent.back()));
  }
  settled(*primary, 10);
  const std::lock_guard lock(mutex);
  EXPECT_EQ(taken, sent);
  EXPECT_EQ(counts().out, 1000u);
  EXPECT_EQ(counts().out_not_primary, 1u);
  EXPECT_EQ(PIGrpcServerGetPacketOutCount(deviceId_), 1000u);
}

TEST_F(PacketStreamTest, OutsThatAreRefusedAreCountedByWhoRefused) {
  const auto primary = served(10);
  const struct {
    StatusCode code;
    uint64_t PIGrpcServerPacketCounts_t::*count;
  } cases[] = {
      {StatusCode::INVALID_ARGUMENT, &PIGrpcServerPacketCounts_t::out_bad_metadata},
      {StatusCode::UNIMPLEMENTED, &PIGrpcServerPacketCounts_t::out_bad_metadata},
      {StatusCode::RESOURCE_EXHAUSTED, &PIGrpcServerPacketCounts_t::out_refused},
      {StatusCode::FAILED_PRECONDITION, &PIGrpcServerPacketCounts_t::out_refused},
  };
  for (const auto& c : cases) {
    TheFakeDevice().onStreamMessage = [&](const StreamMessageRequest&) {
      return statusOf(c.code, "why");
    };
    const uint64_t before = counts().*c.count;
    primary->send(packetOut("out"));
    EXPECT_EQ(primary->next().error().canonical_code(), c.code);
    EXPECT_EQ(counts().*c.count, before + 1) << c.code;
  }
  // An error as long as the refused message would be a burden; it names its subject all the same.
  primary->send(packetOut(std::string(1 << 20, 'x')));
  const StreamMessageResponse answer = primary->next();
  EXPECT_TRUE(answer.error().has_packet_out());
  EXPECT_FALSE(answer.error().packet_out().has_packet_out());
  EXPECT_EQ(counts().out, 0u);
}

TEST_F(PacketStreamTest, OutsBeforeThereIsAPipelineAreRefused) {
  Controller early(*stub_, deviceId_);
  ASSERT_EQ(early.arbitrate(1), StatusCode::OK);
  early.send(packetOut("early"));
  EXPECT_EQ(early.next().error().canonical_code(), StatusCode::FAILED_PRECONDITION);
  EXPECT_EQ(counts().out_refused, 1u);
  ASSERT_TRUE(push().ok());
  early.send(packetOut("now"));
  settled(early, 1);
  EXPECT_EQ(counts().out, 1u);
}

TEST_F(PacketStreamTest, InReachesThePrimaryOfEachRole) {
  const auto primary = served(10);
  Controller backup(*stub_, deviceId_);
  backup.arbitrate(5);
  Controller other(*stub_, deviceId_, "other");
  ASSERT_EQ(other.arbitrate(1), StatusCode::OK);
  Controller stranger(*stub_, deviceId_, "stranger");
  ASSERT_EQ(stranger.arbitrate(std::nullopt), StatusCode::NOT_FOUND);
  punt("a");
  punt("b");
  for (Controller* controller : {primary.get(), &other}) {
    EXPECT_EQ(controller->next().packet().payload(), "a");
    EXPECT_EQ(controller->next().packet().payload(), "b");
  }
  EXPECT_EQ(counts().in, 4u);
  EXPECT_EQ(PIGrpcServerGetPacketInCount(deviceId_), 4u);
  EXPECT_EQ(primary->arbitrate(std::nullopt), StatusCode::NOT_FOUND);
  punt("for the other role");
  EXPECT_EQ(counts().in, 5u);
  EXPECT_EQ(counts().in_no_primary, 0u);
  EXPECT_EQ(other.next().packet().payload(), "for the other role");
  EXPECT_EQ(other.arbitrate(std::nullopt), StatusCode::NOT_FOUND);
  punt("for nobody");
  EXPECT_EQ(counts().in_no_primary, 1u);
  EXPECT_EQ(backup.nextNotice(), StatusCode::NOT_FOUND);  // it got no packet before that
  EXPECT_EQ(stranger.arbitrate(1), StatusCode::OK);
}

// The others' calls share the slow one's connection, except one.
TEST_F(PacketStreamTest, AControllerThatDoesNotReadLosesPacketsButHoldsUpNobody) {
  TheFakeDevice().onRead = [](const p4::v1::ReadRequest&, const FakeDevice::DeviceMgr::ReadSink&) {
    return statusOf(0);
  };
  const auto slow = served(10);
  puntMoreThanFits();
  EXPECT_TRUE(write(10).ok());
  grpc::ClientContext context;
  p4::v1::ReadRequest query;
  query.set_device_id(deviceId_);
  EXPECT_TRUE(stub_->Read(&context, query)->Finish().ok());
  const auto elsewhere = connected();
  uint64_t electionId = 0;  // the server may hear late that the one before has gone
  for (auto* stub : {stub_.get(), elsewhere.get()}) {
    Controller other(*stub, deviceId_, "other");
    ASSERT_EQ(other.arbitrate(++electionId), StatusCode::OK);
    punt("other");
    EXPECT_EQ(other.next().packet().payload(), "other");
  }
  Controller backup(*stub_, deviceId_);
  EXPECT_EQ(backup.arbitrate(5), StatusCode::ALREADY_EXISTS);
  slow->sendArbitration(std::nullopt);  // a notice for the slow one too
  EXPECT_EQ(backup.nextNotice(), StatusCode::NOT_FOUND);
  StreamMessageResponse message = slow->next();
  while (message.has_packet()) message = slow->next();
  EXPECT_EQ(message.arbitration().status().code(), StatusCode::NOT_FOUND);
}

TEST_F(PacketStreamTest, AFloodOfBadOutsIsReportedInPartOnly) {
  TheFakeDevice().onStreamMessage = [](const StreamMessageRequest&) {
    return statusOf(StatusCode::INVALID_ARGUMENT, "bad");
  };
  const auto flooder = served(10);
  const std::string payload(kFloodBytes - 1024, 'x');  // short enough to be reported whole
  for (int i = 0; i < kFlood; ++i) flooder->send(packetOut(payload));
  flooder->sendArbitration(10);
  int reports = 0;
  StreamMessageResponse message = flooder->next();
  for (; !message.has_arbitration(); message = flooder->next()) ++reports;
  EXPECT_EQ(message.arbitration().status().code(), StatusCode::OK);
  EXPECT_EQ(counts().out_bad_metadata, uint64_t{kFlood});
  EXPECT_LT(reports, kFlood / 2);
}

TEST_F(PacketStreamTest, TheServerStopsWithPacketsQueuedAndOthersComing) {
  const auto slow = served(10);
  puntMoreThanFits();
  std::atomic<bool> done = false;
  auto punting = std::async(std::launch::async, [&] {
    while (!done) punt("late");
  });
  PIGrpcServerShutdown();
  PIGrpcServerWait();
  done = true;
  awaited(punting, "all packets are punted");
  EXPECT_FALSE(slow->ended().ok());
  PIGrpcServerCleanup();
  EXPECT_EQ(TheFakeDevice().alive, 0);
}

}  // namespace
