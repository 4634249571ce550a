// Controllers that come back, that are many, and that only use up connections.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/e2e/Switch.h"
#include "tests/support/Waiting.h"

using namespace TestSupport;

namespace {

// Entries outlive the agent, and so must the knowledge of replaced primaries.
TEST(Controllers, AStaleOneStaysBackupAfterTheAgentWasKilled) {
  Switch tested({.deviceId = 0});
  ASSERT_TRUE(tested.start());
  ASSERT_TRUE(tested.insertRoutes(0, 3, 1).ok());
  const uint64_t highest = tested.electionId();
  tested.agent.kill();
  ASSERT_TRUE(tested.startAgent());

  TestController stale(tested.agent.address(), highest - 1, 0);
  EXPECT_EQ(stale.arbitrate(), grpc::NOT_FOUND);
  EXPECT_EQ(stale.write({deleteOf(tested.route(0, 1))}).status.error_code(),
            grpc::PERMISSION_DENIED);
  TestController same(tested.agent.address(), highest, 0);
  EXPECT_TRUE(same.becomePrimary());
  EXPECT_TRUE(same.write({deleteOf(tested.route(0, 1))}).ok());

  // Where nobody knows the id any more, the operator has the last word.
  same.disconnect();
  EXPECT_TRUE(waitUntil([&] { return stale.arbitrationNotice() == grpc::NOT_FOUND; }));
  const CommandResult forget =
      tested.agent.korvel({"call", "p4runtime/piServer", "forgetElectionIds"});
  EXPECT_EQ(forget.exit.code, 0) << forget.error;
  EXPECT_TRUE(stale.becomePrimary());
}

class IdleConnections {
 public:
  IdleConnections(const std::string& address, int count) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    to.sin_port = htons(static_cast<uint16_t>(std::stoi(address.substr(address.find(':') + 1))));
    for (int i = 0; i < count; ++i) {
      const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
      if (fd < 0) break;
      fds_.push_back(fd);
      if (connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to) == 0) ++connected_;
    }
  }
  ~IdleConnections() {
    for (const int fd : fds_) close(fd);
  }
  int connected() const { return connected_; }

 private:
  std::vector<int> fds_;
  int connected_ = 0;
};

// 300 connections at a limit of 256 descriptors once made the server deaf for good.
TEST(Controllers, AreServedWhileAndAfterOthersUseUpConnections) {
  Switch tested;
  ASSERT_TRUE(tested.start());
  const rlimit low{256, 256};
  ASSERT_EQ(prlimit(tested.agent.pid(), RLIMIT_NOFILE, &low, nullptr), 0);
  for (int round = 0; round < 2; ++round) {
    SCOPED_TRACE(round);
    {
      const IdleConnections idle(tested.agent.address(), 300);
      EXPECT_GT(idle.connected(), 250);
      EXPECT_TRUE(tested.insertRoutes(10 * round, 10 * round + 3, 1).ok());
    }
    // The agent takes a moment to see that they have gone.
    ASSERT_TRUE(waitUntil([&] { return tested.connectController(); }));
    EXPECT_TRUE(tested.insertRoutes(10 * round + 3, 10 * round + 5, 1).ok());
  }
  EXPECT_THAT(tested.agent.korvel({"status"}).output, testing::HasSubstr("connections refused"));
}

}  // namespace
