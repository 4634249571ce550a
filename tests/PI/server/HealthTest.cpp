// grpc.health.v1, as load balancers and probes use it.
#include <deque>
#include <memory>
#include <string>

#include "PI/proto/pi_server.h"
#include "PI/proto/pi_server_process.h"
#include "PI/server/HealthService.h"
#include "grpc/health/v1/health.grpc.pb.h"
#include "tests/PI/server/ServerFixture.h"

namespace {

using grpc::health::v1::Health;
using grpc::health::v1::HealthCheckRequest;
using grpc::health::v1::HealthCheckResponse;

HealthCheckRequest asking(const std::string& service) {
  HealthCheckRequest request;
  request.set_service(service);
  return request;
}

class HealthTest : public ServerTest {
 protected:
  HealthTest() {
    PIGrpcServerServingIs(0);
    health_ = Health::NewStub(grpc::CreateChannel(
        "127.0.0.1:" + std::to_string(PIGrpcServerGetPort()), grpc::InsecureChannelCredentials()));
  }
  ~HealthTest() override { PIGrpcServerServingIs(0); }

  // The answer to Check, or the name of an error.
  std::string check(const std::string& service) {
    grpc::ClientContext context;
    HealthCheckResponse response;
    const grpc::Status status = health_->Check(&context, asking(service), &response);
    if (status.error_code() == StatusCode::NOT_FOUND) return "not found";
    if (!status.ok()) return status.error_message();
    return HealthCheckResponse::ServingStatus_Name(response.status());
  }

  struct Watch {
    Watch(Health::Stub& stub, const std::string& service)
        : reader(stub.Watch(&context, asking(service))) {}
    std::string next() {
      HealthCheckResponse response;
      return reader->Read(&response) ? HealthCheckResponse::ServingStatus_Name(response.status())
                                     : "end " + std::to_string(reader->Finish().error_code());
    }
    grpc::ClientContext context;
    std::unique_ptr<grpc::ClientReader<HealthCheckResponse>> reader;
  };

  std::unique_ptr<Health::Stub> health_;
};

TEST_F(HealthTest, SaysWhatTheProcessSays) {
  const std::string tooLong(1 << 20, 'x');
  EXPECT_EQ(check(tooLong), "a service's name has at most 256 bytes");
  EXPECT_EQ(Watch(*health_, tooLong).next(), "end 3");
  EXPECT_EQ(check(""), "NOT_SERVING");
  PIGrpcServerServingIs(1);
  EXPECT_EQ(check(""), "SERVING");
  EXPECT_EQ(check("p4.v1.P4Runtime"), "SERVING");
  EXPECT_EQ(check("p4.v1.Other"), "not found");
}

TEST_F(HealthTest, WatchesHearOfChangesAndOfTheEnd) {
  Watch watch(*health_, "p4.v1.P4Runtime");
  Watch stranger(*health_, "p4.v1.Other");
  EXPECT_EQ(watch.next(), "NOT_SERVING");
  EXPECT_EQ(stranger.next(), "SERVICE_UNKNOWN");
  PIGrpcServerServingIs(1);
  EXPECT_EQ(watch.next(), "SERVING");
  PIGrpcServerServingIs(0);
  EXPECT_EQ(watch.next(), "NOT_SERVING");
  stop();
  const std::string end = "end " + std::to_string(StatusCode::UNAVAILABLE);
  EXPECT_EQ(watch.next(), end);
  EXPECT_EQ(stranger.next(), end);
}

TEST_F(HealthTest, FurtherWatchesAreRefusedUntilOneHasGone) {
  std::deque<Watch> watches;
  for (size_t i = 0; i < pi::server::HealthService::kMostWatches; ++i) {
    EXPECT_EQ(watches.emplace_back(*health_, "").next(), "NOT_SERVING");
  }
  const std::string refused = "end " + std::to_string(StatusCode::RESOURCE_EXHAUSTED);
  EXPECT_EQ(Watch(*health_, "").next(), refused);
  EXPECT_EQ(check(""), "NOT_SERVING");
  watches.front().context.TryCancel();
  std::string answer = refused;
  while (answer == refused) answer = Watch(*health_, "").next();  // the server has noticed
  EXPECT_EQ(answer, "NOT_SERVING");
}

}  // namespace
