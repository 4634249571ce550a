// The agent's end when its own server refuses its pipeline, or does not respond.
#include "P4Runtime/agent/P4RuntimeLocalController.h"

#include <gmock/gmock.h>
#include <grpcpp/grpcpp.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "PI/proto/pi_server.h"
#include "platform/vela/ActivityLock.h"
#include "tests/P4Runtime/support/SmallPipeline.h"

namespace P4Runtime {
namespace {

using namespace std::chrono_literals;
using grpc::ServerContext;
using grpc::Status;
using grpc::StatusCode;

// Returns its statuses, the last one to all further requests, or, without any, nothing as long as
// the caller waits.
class StubbornServer : public p4::v1::P4Runtime::Service {
 public:
  explicit StubbornServer(std::vector<Status> statuses) : statuses_(std::move(statuses)) {
    grpc::ServerBuilder builder;
    builder.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &port_);
    builder.RegisterService(this);
    server_ = builder.BuildAndStart();
  }
  ~StubbornServer() override { server_->Shutdown(std::chrono::system_clock::now()); }
  int port() const { return port_; }

  Status SetForwardingPipelineConfig(ServerContext* context,
                                     const p4::v1::SetForwardingPipelineConfigRequest*,
                                     p4::v1::SetForwardingPipelineConfigResponse*) override {
    while (statuses_.empty() && !context->IsCancelled()) std::this_thread::sleep_for(10ms);
    return statuses_.empty() ? Status::CANCELLED : next();
  }
  Status GetForwardingPipelineConfig(ServerContext*,
                                     const p4::v1::GetForwardingPipelineConfigRequest*,
                                     p4::v1::GetForwardingPipelineConfigResponse*) override {
    return next();
  }
  size_t served() const { return served_; }

 private:
  Status next() { return statuses_[std::min(served_++, statuses_.size() - 1)]; }

  const std::vector<Status> statuses_;
  std::atomic<size_t> served_ = 0;
  int port_ = 0;
  std::unique_ptr<grpc::Server> server_;
};

P4RuntimeLocalController controllerOf(int port, std::chrono::milliseconds patience = 60s) {
  grpc::ChannelArguments arguments;
  arguments.SetInt(GRPC_ARG_ENABLE_HTTP_PROXY, 0);
  return P4RuntimeLocalController(
      p4::v1::P4Runtime::NewStub(grpc::CreateCustomChannel(
          "127.0.0.1:" + std::to_string(port), grpc::InsecureChannelCredentials(), arguments)),
      patience);
}

// The server in this process, which makes the token of the agent's pushes.
void startServer() { ASSERT_EQ(PIGrpcServerRunAddr("127.0.0.1:0"), 0) << PIGrpcServerLastError(); }

class LocalControllerDeathTest : public testing::Test {
 protected:
  LocalControllerDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(LocalControllerDeathTest, AgentEndsWhenItsPipelineIsRefused) {
  EXPECT_DEATH(
      {
        const Vela::ActivityLock lock;
        startServer();
        auto request = TestSupport::smallPipeline();
        request.mutable_config()->mutable_p4info()->mutable_tables(0)->mutable_preamble()->set_id(
            0);
        controllerOf(PIGrpcServerGetPort()).setForwardingPipelineConfigRequest(request);
      },
      "Failed\\(status.ok\\(\\)\\)  errorCode 3 error P4Info: table exact has the id 0\n"
      "(.|\n)*!\"status.ok\\(\\)\"");
}

TEST_F(LocalControllerDeathTest, AgentEndsWhenItsServerDoesNotAnswer) {
  EXPECT_DEATH(
      {
        const Vela::ActivityLock lock;
        startServer();
        const StubbornServer server({});
        controllerOf(server.port(), 100ms)
            .setForwardingPipelineConfigRequest(TestSupport::smallPipeline());
      },
      "Failed\\(status.ok\\(\\)\\)  errorCode 4 error ");
}

// What others send may exhaust the server for a while.
TEST_F(LocalControllerDeathTest, AgentTriesAgainWhileItsServerIsOutOfResources) {
  const Status busy(StatusCode::RESOURCE_EXHAUSTED, "too much to do");
  const StubbornServer server({busy, busy, Status::OK});
  startServer();
  EXPECT_EQ(controllerOf(server.port()).setForwardingPipelineConfigRequest({}), 0);
  EXPECT_EQ(server.served(), 3u);
  PIGrpcServerShutdown();
  PIGrpcServerWait();
  PIGrpcServerCleanup();
}

TEST_F(LocalControllerDeathTest, ServerWithoutPipelineIsNoReasonToEnd) {
  const p4::v1::GetForwardingPipelineConfigRequest request;
  const StubbornServer well({Status::OK});
  EXPECT_EQ(controllerOf(well.port()).getForwardingPipelineConfigRequest(request), 0);
  const StubbornServer empty({Status(StatusCode::FAILED_PRECONDITION, "no pipeline")});
  EXPECT_EQ(controllerOf(empty.port()).getForwardingPipelineConfigRequest(request), 9);
  EXPECT_DEATH(
      {
        const StubbornServer ill({Status(StatusCode::INTERNAL, "out of order")});
        controllerOf(ill.port()).getForwardingPipelineConfigRequest(request);
      },
      "Failed\\(status.ok\\(\\)\\)  errorCode 13 error out of order");
}

}  // namespace
}  // namespace P4Runtime
