// The other calls over real gRPC: their checks in order, their errors, and their messages.
#include <gmock/gmock.h>

#include <future>
#include <mutex>
#include <stdexcept>
#include <vector>

#include "PI/proto/pi_server.h"
#include "PI/proto/pi_server_account.h"
#include "google/rpc/status.pb.h"
#include "tests/PI/server/ServerFixture.h"
#include "tests/PI/support/RefusedWith.h"

namespace {

using p4::v1::GetForwardingPipelineConfigRequest;
using p4::v1::GetForwardingPipelineConfigResponse;
using p4::v1::ReadRequest;
using p4::v1::ReadResponse;
using p4::v1::WriteRequest;
using TestSupport::RefusedWith;

TEST_F(ServerTest, WriteChecksDeviceRolePrimaryPipelineInThisOrder) {
  Controller primary(*stub_, deviceId_);
  primary.arbitrate(10);
  WriteRequest good = writeRequest(10);
  EXPECT_EQ(write(good).error_code(), StatusCode::FAILED_PRECONDITION);  // no pipeline yet
  ASSERT_TRUE(push().ok());
  EXPECT_TRUE(write(good).ok());
  good.clear_updates();
  EXPECT_TRUE(write(good).ok());

  const struct {
    const char* what;
    std::function<void(WriteRequest&)> spoil;
    StatusCode code;
    const char* message;
  } cases[] = {
      // each adds a fault that is found earlier
      {"not the primary", [](WriteRequest& r) { r.mutable_election_id()->set_low(9); },
       StatusCode::PERMISSION_DENIED, "election id 9 of role ''"},
      {"no election id", [](WriteRequest& r) { r.clear_election_id(); },
       StatusCode::PERMISSION_DENIED, "no election id"},
      {"unknown role", [](WriteRequest& r) { r.set_role("nobody"); }, StatusCode::NOT_FOUND,
       "unknown role 'nobody'"},
      {"unknown device", [](WriteRequest& r) { r.set_device_id(r.device_id() + 1000); },
       StatusCode::NOT_FOUND, "unknown device"},
  };
  WriteRequest request = writeRequest(10);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    c.spoil(request);
    const grpc::Status status = write(request);
    EXPECT_THAT(status, RefusedWith(c.code, c.message));
    EXPECT_EQ(status.error_details(), "");
  }
}

TEST_F(ServerTest, AFailedUpdateComesWithOneErrorAnUpdate) {
  const auto primary = served();
  google::rpc::Status answer = statusOf(StatusCode::UNKNOWN, "1 of 2 updates failed");
  p4::v1::Error error;
  answer.add_details()->PackFrom(error);
  error.set_canonical_code(StatusCode::ALREADY_EXISTS);
  error.set_message("there already");
  answer.add_details()->PackFrom(error);
  TheFakeDevice().onWrite = [&](const WriteRequest&) { return answer; };

  const grpc::Status status = write(writeRequest(10, 2));
  EXPECT_THAT(status, RefusedWith(StatusCode::UNKNOWN, "1 of 2 updates failed"));
  google::rpc::Status details;
  ASSERT_TRUE(details.ParseFromString(status.error_details()));
  EXPECT_EQ(details.SerializeAsString(), answer.SerializeAsString());
  EXPECT_EQ(details.details(1).type_url(), "type.googleapis.com/p4.v1.Error");
}

TEST_F(ServerTest, AnErrorWithoutDetailsIsPlain) {
  const auto primary = served();
  TheFakeDevice().onWrite = [](const WriteRequest&) { return statusOf(9, "critical state"); };
  const grpc::Status status = write(10);
  EXPECT_THAT(status, RefusedWith(StatusCode::FAILED_PRECONDITION, "critical state"));
  EXPECT_EQ(status.error_details(), "");
}

TEST_F(ServerTest, WhatTheDeviceThrowsIsAnInternalErrorAndTheNextCallIsServed) {
  const auto primary = served();
  TheFakeDevice().onWrite = [](const WriteRequest&) -> FakeDevice::Status {
    throw std::runtime_error("out of luck");
  };
  TheFakeDevice().onStreamMessage = [](const p4::v1::StreamMessageRequest&) -> FakeDevice::Status {
    throw std::runtime_error("out of luck");
  };
  const grpc::Status status = write(10);
  EXPECT_THAT(status, RefusedWith(StatusCode::INTERNAL, "out of luck"));
  TheFakeDevice().onWrite = nullptr;
  EXPECT_TRUE(write(10).ok());
  p4::v1::StreamMessageRequest packet;
  packet.mutable_packet();
  primary->send(packet);
  EXPECT_EQ(primary->ended().error_code(), StatusCode::INTERNAL);
}

// "Write 0 2 updates": call, code, detail.
struct Accounts {
  Accounts() {
    PIGrpcServerAccountantIs(
        [](const PIGrpcServerAccount_t* account, void* cookie) {
          auto& self = *static_cast<Accounts*>(cookie);
          const std::lock_guard lock(self.mutex);
          self.all.push_back(std::string(account->what) + " " + std::to_string(account->code) +
                             " " + account->detail);
        },
        this);
  }
  ~Accounts() { PIGrpcServerAccountantIs(nullptr, nullptr); }
  std::mutex mutex;
  std::vector<std::string> all;
};

TEST_F(ServerTest, CallsThatChangeSomethingOrAreRefusedAreAccountedFor) {
  Accounts accounts;
  const auto primary = served(10);
  EXPECT_TRUE(write(writeRequest(10, 2)).ok());
  EXPECT_EQ(write(9).error_code(), StatusCode::PERMISSION_DENIED);
  grpc::ClientContext context;
  p4::v1::CapabilitiesResponse response;
  EXPECT_TRUE(stub_->Capabilities(&context, {}, &response).ok());
  Controller backup(*stub_, deviceId_);
  EXPECT_EQ(backup.arbitrate(9), StatusCode::ALREADY_EXISTS);
  p4::v1::StreamMessageRequest packet;
  packet.mutable_packet();
  backup.send(packet);
  EXPECT_EQ(backup.next().error().canonical_code(), StatusCode::PERMISSION_DENIED);
  stop();
  start();
  EXPECT_THAT(accounts.all, testing::ElementsAre(
                                "push 0 VERIFY_AND_COMMIT", "arbitration 0 election id 10, primary",
                                "Write 0 2 updates", "Write 7 1 update",
                                "arbitration 0 election id 9, backup", "packet-out 7 "));
}

TEST_F(ServerTest, OnlyTheLocalTokenPushesWithoutArbitration) {
  const std::string token = PIGrpcServerLocalToken();
  ASSERT_EQ(token.size(), 64u);
  std::string almost = token;
  almost.back() = almost.back() == '0' ? '1' : '0';
  for (const std::string& wrong : {std::string(), almost, token.substr(1), token + "0"}) {
    EXPECT_EQ(push(wrong).error_code(), StatusCode::PERMISSION_DENIED) << wrong;
  }
  EXPECT_TRUE(push(token).ok());
  EXPECT_EQ(TheFakeDevice().pipelines.size(), 1u);
  stop();
  start();
  EXPECT_EQ(push(token).error_code(), StatusCode::PERMISSION_DENIED);
}

TEST_F(ServerTest, AFailedPushLeavesNoDevice) {
  TheFakeDevice().pipelineStatus = statusOf(StatusCode::INVALID_ARGUMENT, "no such table type");
  EXPECT_EQ(push().error_code(), StatusCode::INVALID_ARGUMENT);
  EXPECT_EQ(TheFakeDevice().alive, 0);
  TheFakeDevice().pipelineStatus = {};
  EXPECT_TRUE(push().ok());
  EXPECT_TRUE(push().ok());  // again, onto the device that is there
  EXPECT_EQ(TheFakeDevice().alive, 1);
}

TEST_F(ServerTest, AControllersPushIsCheckedAsTheStandardSays) {
  grpc::ClientContext contexts[4];
  p4::v1::SetForwardingPipelineConfigRequest request;
  p4::v1::SetForwardingPipelineConfigResponse response;
  const auto primary = served(10);
  request.set_device_id(deviceId_ + 1000);
  const auto set = [&](grpc::ClientContext& context) {
    return stub_->SetForwardingPipelineConfig(&context, request, &response).error_code();
  };
  EXPECT_EQ(set(contexts[0]), StatusCode::NOT_FOUND);
  request.set_device_id(deviceId_);
  EXPECT_EQ(set(contexts[1]), StatusCode::PERMISSION_DENIED);
  request.mutable_election_id()->set_low(10);
  EXPECT_EQ(set(contexts[2]), StatusCode::INVALID_ARGUMENT);  // no action
  request.set_action(p4::v1::SetForwardingPipelineConfigRequest::VERIFY_AND_COMMIT);
  EXPECT_EQ(set(contexts[3]), StatusCode::UNIMPLEMENTED);
}

TEST_F(ServerTest, GetAnswersWithOrWithoutAPipeline) {
  const auto get = [&](uint64_t deviceId, int type, GetForwardingPipelineConfigResponse* response) {
    grpc::ClientContext context;
    GetForwardingPipelineConfigRequest request;
    request.set_device_id(deviceId);
    request.set_response_type(static_cast<GetForwardingPipelineConfigRequest::ResponseType>(type));
    return stub_->GetForwardingPipelineConfig(&context, request, response).error_code();
  };
  GetForwardingPipelineConfigResponse response;
  EXPECT_EQ(get(deviceId_, 0, &response), StatusCode::OK);
  EXPECT_FALSE(response.has_config());
  ASSERT_TRUE(push().ok());
  EXPECT_EQ(get(deviceId_, 0, &response), StatusCode::OK);
  EXPECT_EQ(response.config().p4_device_config(), "config");
  EXPECT_EQ(get(deviceId_, 4, &response), StatusCode::INVALID_ARGUMENT);
  EXPECT_EQ(get(deviceId_ + 1000, 0, &response), StatusCode::NOT_FOUND);
}

TEST_F(ServerTest, CapabilitiesTellTheApiVersion) {
  const auto capabilities = [&](uint64_t deviceId, p4::v1::CapabilitiesResponse* response) {
    grpc::ClientContext context;
    p4::v1::CapabilitiesRequest request;
    request.set_device_id(deviceId);
    return stub_->Capabilities(&context, request, response).error_code();
  };
  p4::v1::CapabilitiesResponse response;
  EXPECT_EQ(capabilities(0, &response), StatusCode::OK);
  EXPECT_EQ(response.p4runtime_api_version(), "1.5.0");
  ASSERT_TRUE(push().ok());
  EXPECT_EQ(capabilities(deviceId_, &response), StatusCode::OK);
  EXPECT_EQ(capabilities(deviceId_ + 1000, &response), StatusCode::NOT_FOUND);
}

class ReadTest : public ServerTest {
 protected:
  std::unique_ptr<grpc::ClientReader<ReadResponse>> read(const std::string& role = "") {
    ReadRequest request;
    request.set_device_id(deviceId_);
    request.set_role(role);
    return stub_->Read(&context_, request);
  }
  grpc::ClientContext context_;
};

TEST_F(ReadTest, NeedsAPipelineButNoStream) {
  EXPECT_EQ(read()->Finish().error_code(), StatusCode::FAILED_PRECONDITION);
}

TEST_F(ReadTest, OfAnUnknownRoleFindsNothing) {
  ASSERT_TRUE(push().ok());
  EXPECT_EQ(read("nobody")->Finish().error_code(), StatusCode::NOT_FOUND);
}

TEST_F(ReadTest, StreamsWhatTheDeviceHandsOver) {
  ASSERT_TRUE(push().ok());
  TheFakeDevice().onRead = [](const ReadRequest&, const FakeDevice::DeviceMgr::ReadSink& sink) {
    for (uint32_t id = 1; id <= 3; ++id) {
      ReadResponse response;
      response.add_entities()->mutable_table_entry()->set_table_id(id);
      EXPECT_TRUE(sink(response));
    }
    return statusOf(0);
  };
  const auto reader = read();
  ReadResponse response;
  for (uint32_t id = 1; id <= 3; ++id) {
    ASSERT_TRUE(reader->Read(&response));
    EXPECT_EQ(response.entities(0).table_entry().table_id(), id);
  }
  EXPECT_FALSE(reader->Read(&response));
  EXPECT_TRUE(reader->Finish().ok());
}

TEST_F(ReadTest, StopsWhenTheClientHasGone) {
  ASSERT_TRUE(push().ok());
  std::promise<void> stopped;
  TheFakeDevice().onRead = [&](const ReadRequest&, const FakeDevice::DeviceMgr::ReadSink& sink) {
    ReadResponse response;
    response.add_entities()->mutable_table_entry()->set_metadata(std::string(65536, 'x'));
    while (sink(response)) {
    }
    stopped.set_value();
    return statusOf(0);
  };
  const auto reader = read();
  ReadResponse response;
  ASSERT_TRUE(reader->Read(&response));
  context_.TryCancel();
  awaited(stopped, "the Read has seen that its client has gone");
  EXPECT_EQ(reader->Finish().error_code(), StatusCode::CANCELLED);
}

TEST_F(ReadTest, BigMessagesPassBothWays) {
  const std::string big(63 << 20, 'x');
  ASSERT_TRUE(push(PIGrpcServerLocalToken(), big).ok());
  const std::string tooBig(64 << 20, 'x');
  EXPECT_EQ(push(PIGrpcServerLocalToken(), tooBig).error_code(), StatusCode::RESOURCE_EXHAUSTED);
  EXPECT_EQ(TheFakeDevice().pipelines.back().p4_device_config().size(), big.size());
  grpc::ClientContext context;
  GetForwardingPipelineConfigRequest request;
  request.set_device_id(deviceId_);
  GetForwardingPipelineConfigResponse response;
  ASSERT_TRUE(stub_->GetForwardingPipelineConfig(&context, request, &response).ok());
  EXPECT_EQ(response.config().p4_device_config().size(), big.size());
}

}  // namespace
