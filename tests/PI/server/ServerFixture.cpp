#include "tests/PI/server/ServerFixture.h"

#include "PI/proto/pi_server.h"

Controller::Controller(p4::v1::P4Runtime::Stub& stub, uint64_t deviceId, std::string role) {
  update.set_device_id(deviceId);
  if (!role.empty()) update.mutable_role()->set_name(role);
  context_.set_deadline(std::chrono::system_clock::now() + kPatience);
  stream_ = stub.StreamChannel(&context_);
}

Controller::~Controller() { disconnect(); }

void Controller::sendArbitration(std::optional<uint64_t> electionId) {
  p4::v1::StreamMessageRequest request;
  *request.mutable_arbitration() = update;
  if (electionId) request.mutable_arbitration()->mutable_election_id()->set_low(*electionId);
  send(request);
}

p4::v1::StreamMessageResponse Controller::next() {
  p4::v1::StreamMessageResponse response;
  if (!stream_->Read(&response)) response.Clear();
  return response;
}

int Controller::arbitrate(std::optional<uint64_t> electionId) {
  sendArbitration(electionId);
  return nextNotice();
}

void Controller::configIs(const std::string& bytes) {
  auto& config = *update.mutable_role()->mutable_config();
  config.set_type_url("type.googleapis.com/stratum.P4RoleConfig");
  config.set_value(bytes);
}

void Controller::disconnect() {
  if (finished_) return;
  context_.TryCancel();
  ended();
}

grpc::Status Controller::ended() {
  while (next().update_case() != p4::v1::StreamMessageResponse::UPDATE_NOT_SET) {
  }
  finished_ = true;
  return stream_->Finish();
}

namespace {

uint64_t nextDeviceId() {
  static uint64_t last = 0;
  return ++last;
}

}  // namespace

ServerTest::ServerTest() : ServerTest(nextDeviceId()) {}

ServerTest::ServerTest(uint64_t deviceId) : deviceId_(deviceId) {
  TheFakeDevice() = {};
  start();
}

ServerTest::~ServerTest() {
  stop();
  EXPECT_EQ(TheFakeDevice().alive, 0);
}

void ServerTest::start() {
  ASSERT_EQ(PIGrpcServerRunAddr("127.0.0.1:0"), 0) << PIGrpcServerLastError();
  stub_ = connected();
}

void ServerTest::stop() {
  awaited(std::async(std::launch::async,
                     [] {
                       PIGrpcServerShutdown();
                       PIGrpcServerWait();
                       PIGrpcServerCleanup();
                     }),
          "the server has stopped");
}

std::unique_ptr<p4::v1::P4Runtime::Stub> ServerTest::connected() const {
  grpc::ChannelArguments arguments;
  arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);  // a connection of its own
  arguments.SetMaxReceiveMessageSize(-1);
  return p4::v1::P4Runtime::NewStub(
      grpc::CreateCustomChannel("127.0.0.1:" + std::to_string(PIGrpcServerGetPort()),
                                grpc::InsecureChannelCredentials(), arguments));
}

grpc::Status ServerTest::push(const std::string& token, const std::string& deviceConfig) {
  grpc::ClientContext context;
  context.set_deadline(std::chrono::system_clock::now() + kPatience);
  context.AddMetadata(PIGrpcServerLocalTokenKey(), token);
  p4::v1::SetForwardingPipelineConfigRequest request;
  request.set_device_id(deviceId_);
  request.set_action(p4::v1::SetForwardingPipelineConfigRequest::VERIFY_AND_COMMIT);
  request.mutable_config()->set_p4_device_config(deviceConfig);
  p4::v1::SetForwardingPipelineConfigResponse response;
  return stub_->SetForwardingPipelineConfig(&context, request, &response);
}

grpc::Status ServerTest::push() { return push(PIGrpcServerLocalToken()); }

std::unique_ptr<Controller> ServerTest::served(uint64_t electionId) {
  EXPECT_TRUE(push().ok());
  auto controller = std::make_unique<Controller>(*stub_, deviceId_);
  EXPECT_EQ(controller->arbitrate(electionId), StatusCode::OK);
  return controller;
}

p4::v1::WriteRequest ServerTest::writeRequest(std::optional<uint64_t> electionId,
                                              int updates) const {
  p4::v1::WriteRequest request;
  request.set_device_id(deviceId_);
  if (electionId) request.mutable_election_id()->set_low(*electionId);
  for (int i = 0; i < updates; ++i) {
    request.add_updates()->mutable_entity()->mutable_table_entry()->set_table_id(i);
  }
  return request;
}

grpc::Status ServerTest::write(const p4::v1::WriteRequest& request) {
  grpc::ClientContext context;
  context.set_deadline(std::chrono::system_clock::now() + kPatience);
  p4::v1::WriteResponse response;
  return stub_->Write(&context, request, &response);
}
