// The server's limits before a client is known, and its errors beyond them.
#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "PI/proto/pi_server.h"
#include "PI/server/Devices.h"
#include "PI/server/Limits.h"
#include "tests/PI/server/ServerFixture.h"
#include "tests/PI/server/WindowlessClient.h"
#include "tests/PI/support/RefusedWith.h"

namespace {

using testing::HasSubstr;
using TestSupport::RefusedWith;

class LimitsTest : public ServerTest {
 protected:
  LimitsTest() { PIGrpcServerDefaultLimits(&limits_); }
  ~LimitsTest() override {
    PIGrpcServerDefaultLimits(&limits_);
    apply();
  }
  void apply() { PIGrpcServerLimitsIs(&limits_); }

  grpc::Status readWith(const p4::v1::ReadRequest& request) {
    grpc::ClientContext context;
    p4::v1::ReadResponse response;
    const auto reader = stub_->Read(&context, request);
    while (reader->Read(&response)) {
    }
    return reader->Finish();
  }
  p4::v1::ReadRequest readRequest() const {
    p4::v1::ReadRequest request;
    request.set_device_id(deviceId_);
    return request;
  }
  // The last status of a stream that the server ends.
  static p4::v1::StreamError lastError(Controller& controller) {
    p4::v1::StreamError error;
    for (auto next = controller.next(); next.update_case(); next = controller.next()) {
      if (next.has_error()) error = next.error();
    }
    return error;
  }

  PIGrpcServerLimits_t limits_;
};

TEST_F(LimitsTest, MessagesAreLimitedByCall) {
  const auto primary = served();
  const std::string large(5 << 20, 'x');
  auto write = writeRequest(10);
  write.mutable_updates(0)->mutable_entity()->mutable_table_entry()->set_metadata(large);
  EXPECT_TRUE(ServerTest::write(write).ok());

  auto read = readRequest();
  read.add_entities()->mutable_table_entry()->set_metadata(large);
  const grpc::Status tooLarge = readWith(read);
  EXPECT_THAT(tooLarge, RefusedWith(StatusCode::RESOURCE_EXHAUSTED, "the ReadRequest has 52"));
  EXPECT_THAT(tooLarge.error_message(), HasSubstr("send at most 4194304"));

  p4::v1::StreamMessageRequest packet;
  packet.mutable_packet()->set_payload(large);
  primary->send(packet);
  const grpc::Status ended = primary->ended();
  EXPECT_THAT(ended, RefusedWith(StatusCode::RESOURCE_EXHAUSTED, "the stream message has 52"));
}

TEST_F(LimitsTest, OneReadDoesNotScanWithoutEnd) {
  const auto primary = served();
  auto request = readRequest();
  for (int i = 0; i < 256; ++i) request.add_entities()->mutable_table_entry();
  for (int i = 0; i < 1000; ++i) {
    request.add_entities()->mutable_table_entry()->add_match()->set_field_id(i);
  }
  EXPECT_TRUE(readWith(request).ok());
  request.add_entities()->mutable_action_profile_member();
  const grpc::Status status = readWith(request);
  EXPECT_THAT(status, RefusedWith(StatusCode::RESOURCE_EXHAUSTED,
                                  "257 queries that each read a whole table"));
}

// It would hold its place, a thread and its picture of the tables for good.
TEST_F(LimitsTest, AReadWhoseClientTakesNothingIsEnded) {
  const auto primary = served();
  pi::server::limitsAre({.takeWithin = std::chrono::milliseconds(1)});
  std::promise<void> ended;
  TheFakeDevice().onRead = [&](const p4::v1::ReadRequest&, const auto& sink) {
    p4::v1::ReadResponse response;
    response.add_entities()->mutable_table_entry()->set_metadata(std::string(1 << 20, 'x'));
    while (sink(response)) {
    }
    ended.set_value();
    return statusOf(1);
  };
  grpc::ClientContext context;
  const auto reader = stub_->Read(&context, readRequest());
  awaited(ended, "the Read has ended");
  p4::v1::ReadResponse response;
  while (reader->Read(&response)) {
  }
  EXPECT_EQ(reader->Finish().error_code(), StatusCode::CANCELLED);
}

// Each of its calls waits on a thread for it to take the answer, and all threads are bounded.
TEST_F(LimitsTest, AClientThatTakesNoAnswersKeepsNobodyFromWriting) {
  const auto primary = served(10);
  pi::server::limitsAre({.streams = 4,
                         .writes = 1,
                         .reads = 1,
                         .otherCalls = 4,
                         .takeWithin = std::chrono::hours(1)});
  WindowlessClient client(PIGrpcServerGetPort());
  for (int i = 0; i < 500; ++i) client.call("Capabilities");
  client.awaitEnds(250);
  EXPECT_TRUE(write(10).ok());
  Controller another(*stub_, deviceId_);
  EXPECT_EQ(another.arbitrate(11), StatusCode::OK);
}

TEST_F(LimitsTest, ACallWhoseAnswerIsNotTakenIsEnded) {
  pi::server::limitsAre({.takeWithin = std::chrono::milliseconds(1)});
  WindowlessClient client(PIGrpcServerGetPort());
  client.call("Capabilities");
  client.awaitEnds(1);
}

TEST_F(LimitsTest, StalledCallsGiveWayToOthers) {
  const auto primary = served();
  pi::server::limitsAre({.reads = 1,
                         .otherCalls = 1,
                         .takeWithin = std::chrono::hours(1),
                         .stalledAfter = std::chrono::milliseconds(1)});
  std::promise<void> begun;
  TheFakeDevice().onRead = [&](const p4::v1::ReadRequest& request, const auto& sink) {
    if (!request.entities().empty()) return statusOf(0);
    begun.set_value();
    p4::v1::ReadResponse response;
    response.add_entities()->mutable_table_entry()->set_metadata(std::string(1 << 20, 'x'));
    while (sink(response)) {
    }
    return statusOf(0);
  };
  WindowlessClient client(PIGrpcServerGetPort());
  client.call("Capabilities");
  grpc::ClientContext context;
  const auto reader = stub_->Read(&context, readRequest());
  awaited(begun, "the Read has begun");
  auto request = readRequest();
  request.add_entities()->mutable_table_entry();
  while (!readWith(request).ok()) std::this_thread::yield();
  grpc::Status asked;
  do {
    grpc::ClientContext capabilities;
    p4::v1::CapabilitiesResponse response;
    asked = stub_->Capabilities(&capabilities, {}, &response);
  } while (!asked.ok() || client.ends() == 0);
  p4::v1::ReadResponse response;
  while (reader->Read(&response)) {
  }
  EXPECT_EQ(reader->Finish().error_code(), StatusCode::CANCELLED);
}

// Others have a quarter of the places left.
TEST_F(LimitsTest, OneConnectionDoesNotTakeAllPlaces) {
  const auto primary = served();
  limits_.reads = 4;
  apply();
  std::promise<void> release;
  const std::shared_future<void> released(release.get_future());
  std::atomic<int> begun = 0;
  TheFakeDevice().onRead = [&](const p4::v1::ReadRequest& request, const auto&) {
    if (!request.entities().empty()) return statusOf(0);
    ++begun;
    awaited(released, "the test lets the Reads go on");
    return statusOf(0);
  };
  std::vector<std::future<grpc::Status>> reads;
  for (int i = 0; i < 3; ++i) {
    reads.push_back(std::async(std::launch::async, [this] { return readWith(readRequest()); }));
  }
  while (begun < 3) std::this_thread::yield();
  auto request = readRequest();
  request.add_entities()->mutable_table_entry();
  EXPECT_THAT(readWith(request), RefusedWith(StatusCode::RESOURCE_EXHAUSTED,
                                             "3 Reads of this connection are under way"));
  const auto elsewhere = connected();
  grpc::ClientContext context;
  p4::v1::ReadResponse response;
  const auto reader = elsewhere->Read(&context, request);
  EXPECT_FALSE(reader->Read(&response));
  EXPECT_TRUE(reader->Finish().ok());
  release.set_value();
  for (auto& read : reads) EXPECT_TRUE(awaited(read, "the Read has ended").ok());
}

TEST_F(LimitsTest, AStreamThatNamesNoRoleInTimeIsEnded) {
  Controller settled(*stub_, deviceId_);
  EXPECT_EQ(settled.arbitrate(1), StatusCode::OK);
  limits_.arbitration_timeout_ms = 1;
  apply();
  Controller silent(*stub_, deviceId_);
  const auto error = lastError(silent);
  EXPECT_EQ(error.canonical_code(), StatusCode::DEADLINE_EXCEEDED);
  EXPECT_THAT(error.message(), HasSubstr("no arbitration update within 1 ms"));
  EXPECT_EQ(settled.arbitrate(2), StatusCode::OK);
}

TEST_F(LimitsTest, SilentStreamsMakeRoomForOthers) {
  std::vector<std::unique_ptr<Controller>> silent;
  for (int i = 0; i < 65; ++i) silent.push_back(std::make_unique<Controller>(*stub_, deviceId_));
  Controller controller(*stub_, deviceId_);
  EXPECT_EQ(controller.arbitrate(1), StatusCode::OK);
}

TEST_F(LimitsTest, ADisplacedBackupIsToldWhy) {
  limits_.streams_of_role = 2;
  apply();
  Controller primary(*stub_, deviceId_);
  EXPECT_EQ(primary.arbitrate(10), StatusCode::OK);
  Controller idle(*stub_, deviceId_);
  EXPECT_EQ(idle.arbitrate(std::nullopt), StatusCode::ALREADY_EXISTS);
  Controller next(*stub_, deviceId_);
  EXPECT_EQ(next.arbitrate(11), StatusCode::OK);
  const auto error = lastError(idle);
  EXPECT_EQ(error.canonical_code(), StatusCode::RESOURCE_EXHAUSTED);
  EXPECT_THAT(error.message(), HasSubstr("election id 11"));
  Controller late(*stub_, deviceId_);
  late.sendArbitration(3);
  EXPECT_EQ(late.ended().error_code(), StatusCode::RESOURCE_EXHAUSTED);
}

// Devices that will never come would use up the room that default roles have.
TEST_F(LimitsTest, OtherDevicesAreUnknownBeforeThePipelineToo) {
  pi::server::Devices::onlyDeviceIs(deviceId_);
  Controller stranger(*stub_, deviceId_ + 1);
  stranger.sendArbitration(1);
  EXPECT_EQ(stranger.ended().error_code(), StatusCode::NOT_FOUND);
  Controller controller(*stub_, deviceId_);
  EXPECT_EQ(controller.arbitrate(1), StatusCode::OK);
  pi::server::Devices::onlyDeviceIs(std::nullopt);
}

// One Write runs until the test lets it go on.
class WritesInLineTest : public LimitsTest {
 protected:
  void beginOne() {
    TheFakeDevice().onWrite = [this](const p4::v1::WriteRequest&) {
      if (begun_++ == 0) {
        firstRuns_.set_value();
        awaited(release_, "the test lets the Write go on");
      }
      return FakeDevice::Status();
    };
    first_ = std::async(std::launch::async, [this] { return write(10); });
    awaited(firstRuns_, "the Write has begun");
  }
  void endOne() {
    release_.set_value();
    EXPECT_TRUE(awaited(first_, "the Write has ended").ok());
  }

  std::atomic<int> begun_{0};
  std::promise<void> firstRuns_;
  std::promise<void> release_;
  std::future<grpc::Status> first_;
};

TEST_F(WritesInLineTest, AreLimited) {
  const auto primary = served(10);
  beginOne();
  limits_.writes = 1;
  apply();
  const grpc::Status status = write(10);
  EXPECT_THAT(status, RefusedWith(StatusCode::RESOURCE_EXHAUSTED, "1 Writes are under way"));
  EXPECT_EQ(write(9).error_code(),
            StatusCode::PERMISSION_DENIED);  // by a client that may not write
  endOne();
  grpc::Status next = write(10);
  // The former's place is free a moment after its client has the response.
  for (int i = 0; i < 1000 && next.error_code() == StatusCode::RESOURCE_EXHAUSTED; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    next = write(10);
  }
  EXPECT_TRUE(next.ok());
}

// The agent ends when its own push is refused.
TEST_F(WritesInLineTest, TakeNoMemoryFromTheAgentsPipeline) {
  const auto primary = served(10);
  beginOne();
  limits_.memory_mib = 64;  // a quarter of it for requests
  apply();
  const std::string large(17 << 20, 'x');
  auto another = writeRequest(10);
  another.mutable_updates(0)->mutable_entity()->mutable_table_entry()->set_metadata(large);
  EXPECT_EQ(ServerTest::write(another).error_code(), StatusCode::RESOURCE_EXHAUSTED);
  EXPECT_TRUE(push(PIGrpcServerLocalToken(), large).ok());
  endOne();
}

TEST_F(WritesInLineTest, AreNotBegunOnceTheirClientHasGone) {
  const auto primary = served(10);
  beginOne();
  const int waiting = TheFakeDevice().waiting;
  grpc::ClientContext context;
  auto cancelled = std::async(std::launch::async, [&] {
    p4::v1::WriteResponse response;
    return stub_->Write(&context, writeRequest(10), &response);
  });
  while (TheFakeDevice().waiting == waiting) std::this_thread::yield();
  context.TryCancel();
  EXPECT_EQ(awaited(cancelled, "the Write is cancelled").error_code(), StatusCode::CANCELLED);
  EXPECT_EQ(write(9).error_code(), StatusCode::PERMISSION_DENIED);  // came after the cancellation
  std::this_thread::sleep_for(std::chrono::milliseconds(5));  // of a short wait nobody is asked
  endOne();
  stop();
  EXPECT_EQ(begun_, 1);
}

TEST_F(WritesInLineTest, AreNotBegunOnceAHigherElectionIdHasCome) {
  const auto primary = served(10);
  beginOne();
  const int waiting = TheFakeDevice().waiting;
  auto deposed = std::async(std::launch::async, [&] { return write(10); });
  while (TheFakeDevice().waiting == waiting) std::this_thread::yield();
  Controller next(*stub_, deviceId_);
  next.sendArbitration(11);
  EXPECT_EQ(primary->nextNotice(), StatusCode::ALREADY_EXISTS);
  endOne();
  const grpc::Status status = awaited(deposed, "the Write is refused");
  EXPECT_THAT(status, RefusedWith(StatusCode::PERMISSION_DENIED, "a higher election id came"));
  EXPECT_EQ(next.nextNotice(), StatusCode::OK);
  EXPECT_TRUE(write(11).ok());
  EXPECT_EQ(begun_, 2);
}

}  // namespace
