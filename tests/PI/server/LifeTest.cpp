// Starting and stopping the server, with calls under way.
#include <gmock/gmock.h>

#include <future>
#include <vector>

#include "PI/proto/pi_server.h"
#include "tests/PI/server/ServerFixture.h"

namespace {

using testing::HasSubstr;

TEST(ServerStart, SaysWhyItCannotListenAndCanStartAfterwards) {
  EXPECT_EQ(PIGrpcServerRunAddr("nonsense"), -1);
  EXPECT_THAT(PIGrpcServerLastError(), HasSubstr("cannot listen on nonsense: "));
  EXPECT_EQ(PIGrpcServerRunAddr(nullptr), -1);
  EXPECT_EQ(PIGrpcServerGetPort(), 0);
  const PIGrpcServerSSLOptions_t nothing{};
  EXPECT_EQ(PIGrpcServerRunAddrSSL("127.0.0.1:0", &nothing), -1);
  EXPECT_EQ(PIGrpcServerRunAddrSSL("127.0.0.1:0", nullptr), -1);
  EXPECT_THAT(PIGrpcServerLastError(), HasSubstr("certificate"));
  EXPECT_EQ(PIGrpcServerWaitStarted(60), -1);  // it has failed: nothing to wait for

  ASSERT_EQ(PIGrpcServerRunAddr("127.0.0.1:0"), 0);
  EXPECT_STREQ(PIGrpcServerLastError(), "");
  EXPECT_EQ(PIGrpcServerWaitStarted(0), 0);
  EXPECT_NE(PIGrpcServerGetPort(), 0);
  EXPECT_EQ(PIGrpcServerRunAddr("127.0.0.1:0"), -1);
  EXPECT_THAT(PIGrpcServerLastError(), HasSubstr("running already"));
  PIGrpcServerCleanup();
  EXPECT_EQ(PIGrpcServerWaitStarted(0), -1);
}

TEST(ServerStart, StoppingWhatDoesNotRunDoesNothing) {
  PIGrpcServerShutdown();
  PIGrpcServerWait();
  PIGrpcServerForceShutdown(1);
  PIGrpcServerCleanup();
}

TEST_F(ServerTest, ShutDownEndsOpenStreamsAndWaitReturns) {
  std::vector<std::unique_ptr<Controller>> controllers;
  for (uint64_t id = 1; id <= 8; ++id) {
    controllers.push_back(std::make_unique<Controller>(*stub_, deviceId_));
    EXPECT_EQ(controllers.back()->arbitrate(id), StatusCode::OK);
  }
  auto waiting = std::async(std::launch::async, [] { PIGrpcServerWait(); });
  PIGrpcServerShutdown();
  awaited(waiting, "PIGrpcServerWait() has returned");
  for (const auto& controller : controllers) EXPECT_FALSE(controller->ended().ok());
}

// A server that goes down while a Write runs.
class RunningWriteTest : public ServerTest {
 protected:
  // A Write that has begun, and goes on once `release` has a value.
  std::future<grpc::Status> begunWrite() {
    TheFakeDevice().onWrite = [this](const p4::v1::WriteRequest&) {
      begun_.set_value();
      awaited(release, "the test lets the Write go on");
      return statusOf(0);
    };
    auto running = std::async(std::launch::async, [this] { return write(10); });
    awaited(begun_, "the Write has begun");
    return running;
  }

  std::promise<void> release;

 private:
  std::promise<void> begun_;
};

TEST_F(RunningWriteTest, FinishesBeforeAShutDown) {
  const auto primary = served();
  auto running = begunWrite();
  auto shutDown = std::async(std::launch::async, [] { PIGrpcServerShutdown(); });
  EXPECT_FALSE(primary->ended().ok());  // by now the server is going down
  release.set_value();
  EXPECT_TRUE(awaited(running, "the Write has ended").ok());
  awaited(shutDown, "PIGrpcServerShutdown() has returned");
}

// A Write once waited for a lock that the thread which shut the server down held.
TEST_F(RunningWriteTest, HoldsUpNoForcedShutDown) {
  const auto primary = served();
  auto running = begunWrite();
  PIGrpcServerForceShutdown(0);
  EXPECT_EQ(TheFakeDevice().alive, 1);  // the Write still has its device
  EXPECT_FALSE(awaited(running, "the Write has ended").ok());
  release.set_value();
}

TEST_F(ServerTest, ElectionIdsAreRememberedOverARestart) {
  const auto primary = served(10);
  stop();
  start();
  ASSERT_TRUE(push().ok());
  Controller lower(*stub_, deviceId_);
  EXPECT_EQ(lower.arbitrate(9), StatusCode::NOT_FOUND);
  Controller same(*stub_, deviceId_);
  EXPECT_EQ(same.arbitrate(10), StatusCode::OK);
}

}  // namespace
