// What replaying makes of a switch that is slow with its pipeline, or hostile with its words.
#include "cli/journal/ReplayTarget.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <mutex>

#include "google/rpc/status.pb.h"

namespace Cli {
namespace {

using grpc::Status;
using grpc::StatusCode;
using testing::HasSubstr;
using Push = p4::v1::SetForwardingPipelineConfigRequest;

const std::string hostile = "no\x1b[2J\nkorvel: all is well";

// Runs a pushed pipeline once it was asked for it so many times.
class FakeSwitch final : public p4::v1::P4Runtime::Service {
 public:
  int asksUntilItRuns = -1;  // -1: never
  Status pushAnswer;
  std::mutex mutex;  // guards the members below
  p4::v1::ForwardingPipelineConfig running, pushed;

 private:
  Status StreamChannel(grpc::ServerContext*,
                       grpc::ServerReaderWriter<p4::v1::StreamMessageResponse,
                                                p4::v1::StreamMessageRequest>* stream) override {
    p4::v1::StreamMessageRequest request;
    while (stream->Read(&request)) {
      p4::v1::StreamMessageResponse response;
      *response.mutable_arbitration() = request.arbitration();
      stream->Write(response);
    }
    return Status::OK;
  }
  Status SetForwardingPipelineConfig(grpc::ServerContext*, const Push* request,
                                     p4::v1::SetForwardingPipelineConfigResponse*) override {
    const std::lock_guard lock(mutex);
    pushed = request->config();
    return pushAnswer;
  }
  Status GetForwardingPipelineConfig(
      grpc::ServerContext*, const p4::v1::GetForwardingPipelineConfigRequest*,
      p4::v1::GetForwardingPipelineConfigResponse* response) override {
    const std::lock_guard lock(mutex);
    if (pushed.has_p4info() && asksUntilItRuns > 0 && --asksUntilItRuns == 0) running = pushed;
    if (!running.has_p4info()) return Status(StatusCode::FAILED_PRECONDITION, "no pipeline yet");
    *response->mutable_config() = running;
    return Status::OK;
  }
  Status Write(grpc::ServerContext*, const p4::v1::WriteRequest* request,
               p4::v1::WriteResponse*) override {
    google::rpc::Status details;
    for (int i = 0; i < request->updates_size(); ++i) {
      p4::v1::Error error;
      error.set_canonical_code(StatusCode::INTERNAL);
      error.set_message(hostile);
      details.add_details()->PackFrom(error);
    }
    return Status(StatusCode::UNKNOWN, hostile, details.SerializeAsString());
  }
};

class ReplayTargetTest : public testing::Test {
 protected:
  ReplayTargetTest() {
    grpc::ServerBuilder builder;
    builder.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &port_);
    builder.RegisterService(&fake);
    server_ = builder.BuildAndStart();
  }
  ReplayTarget target() const {
    return ReplayTarget({.address = "127.0.0.1:" + std::to_string(port_),
                         .deviceId = 1,
                         .patienceForPipeline = patience});
  }
  static p4::v1::ForwardingPipelineConfig config(const std::string& program) {
    p4::v1::ForwardingPipelineConfig made;
    made.mutable_p4info()->mutable_pkg_info()->set_name(program);
    return made;
  }
  // "" when it succeeded.
  std::string pushed(const std::string& program) const {
    ReplayTarget target = this->target();
    try {
      target.push(Push::VERIFY_AND_COMMIT, config(program));
      return "";
    } catch (const std::runtime_error& e) {
      return e.what();
    }
  }

  FakeSwitch fake;
  std::chrono::milliseconds patience{60'000};

 private:
  int port_ = 0;
  std::unique_ptr<grpc::Server> server_;
};

TEST_F(ReplayTargetTest, WaitsForAPipelineThatComesUpLater) {
  fake.pushAnswer = Status(StatusCode::UNAVAILABLE, "it is still coming up");
  fake.asksUntilItRuns = 3;
  EXPECT_EQ(pushed("slow"), "");
}

TEST_F(ReplayTargetTest, APipelineThatDoesNotComeUpIsRefused) {
  patience = std::chrono::milliseconds(1);
  fake.pushAnswer = Status(StatusCode::UNAVAILABLE, "it is still coming up");
  EXPECT_THAT(pushed("never"), HasSubstr("UNAVAILABLE: it is still coming up"));
  // The same ran before: whether it was pushed again, and the entries are gone, does not show.
  fake.running = config("never");
  EXPECT_THAT(pushed("never"), HasSubstr("UNAVAILABLE: it is still coming up"));
}

TEST_F(ReplayTargetTest, WordsOfTheSwitchArePlainLines) {
  fake.pushAnswer = Status(StatusCode::INVALID_ARGUMENT, hostile);
  const std::string refusal = pushed("x");
  EXPECT_THAT(refusal, HasSubstr("all is well"));
  EXPECT_EQ(refusal.find_first_of("\x1b\n"), std::string::npos) << refusal;

  ReplayTarget target = this->target();
  p4::v1::WriteRequest request;
  request.add_updates();
  const std::vector<p4::v1::Error> errors = target.write(request);
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_THAT(errors[0].message(), HasSubstr("all is well"));
  EXPECT_EQ(errors[0].message().find_first_of("\x1b\n"), std::string::npos);
}

}  // namespace
}  // namespace Cli
