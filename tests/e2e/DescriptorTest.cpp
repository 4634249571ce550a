// An agent of few file descriptors: used up by clients of all its sockets, and too few to start.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <algorithm>
#include <filesystem>

#include "platform/vela/UnixListener.h"
#include "tests/e2e/Switch.h"

using namespace TestSupport;
using testing::HasSubstr;

namespace {

using Connections = std::vector<Vela::UniqueFd>;

void connectMany(int count, int family, int type, const sockaddr* address, socklen_t size,
                 Connections* out) {
  for (int i = 0; i < count; ++i) {
    Vela::UniqueFd made(socket(family, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    connect(made.get(), address, size);
    out->push_back(std::move(made));
  }
}

// Clients that say nothing, more than the agent has descriptors for.
Connections everywhere(const Switch& tested) {
  Connections all;
  sockaddr_in server{.sin_family = AF_INET, .sin_port = htons(tested.agent.options().port)};
  server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  connectMany(300, AF_INET, SOCK_STREAM, reinterpret_cast<const sockaddr*>(&server), sizeof server,
              &all);
  const std::string state = tested.agent.options().stateDirectory;
  const Vela::UnixAddress doorbell(state + "/doorbell.sock"), orrery(state + "/orrery.sock");
  connectMany(200, AF_UNIX, SOCK_SEQPACKET, doorbell.get(), Vela::UnixAddress::size(), &all);
  connectMany(200, AF_UNIX, SOCK_STREAM, orrery.get(), Vela::UnixAddress::size(), &all);
  return all;
}

size_t openDescriptors(pid_t pid) {
  const std::filesystem::directory_iterator all("/proc/" + std::to_string(pid) + "/fd");
  return std::distance(begin(all), end(all));
}

// 300 idle connections at a limit of 256 switched services off for good: each listener gave up, or
// turned round and round, at the first that it had no descriptor for.
TEST(Descriptors, UsedUpByClientsAreServedFromAgainOnceTheyAreBack) {
#ifdef KORVEL_SANITIZED
  GTEST_SKIP() << "UndefinedBehaviorSanitizer opens descriptors of its own to look at exceptions";
#endif
  Switch tested({.descriptorLimit = 256});
  ASSERT_TRUE(tested.start());
  ASSERT_TRUE(tested.insertRoutes(0, 10, 1).ok());
  const size_t before = openDescriptors(tested.agent.pid());
  for (int round = 0; round < 2; ++round) {
    SCOPED_TRACE(round);
    Connections silent = everywhere(tested);
    ASSERT_TRUE(waitUntil([&] { return openDescriptors(tested.agent.pid()) > before + 50; },
                          tested.agent.process().descriptor()));
    EXPECT_TRUE(tested.insertRoutes(10 + round, 11 + round, 1).ok()) << "who is in goes on";
    silent.clear();
    EXPECT_TRUE(waitUntil([&] { return tested.agent.korvel({"status"}).exit.code == 0; }));
    EXPECT_TRUE(waitUntil([&] { return openDescriptors(tested.agent.pid()) <= before + 8; }));
    tested.forwarder.kill();
    ASSERT_TRUE(tested.startForwarder());
    EXPECT_TRUE(waitUntil([&] {
      return tested.agent.korvel({"status"}).output.find("received up to") != std::string::npos;
    }));
    // The listener may be behind: it refuses while connections that have ended fill its places.
    ASSERT_TRUE(waitUntil([&] { return tested.connectController(); })) << "a new connection";
    EXPECT_TRUE(tested.insertRoutes(20 + round, 21 + round, 1).ok());
  }
  EXPECT_EQ(tested.disagreement(), "");
}

// libuv and gRPC abort where they find no descriptor.
TEST(Descriptors, TooFewToStartAreToldInALine) {
  for (const unsigned limit : {6u, 12u, 24u, 60u}) {
    SCOPED_TRACE(limit);
    Switch tested({.descriptorLimit = limit});
    tested.agent.start();
    const auto status = tested.agent.process().exitStatus();
    ASSERT_TRUE(status);
    EXPECT_EQ(*status, ExitStatus{.code = 1});
    const std::string said = tested.agent.output();
    EXPECT_THAT(said, HasSubstr("file descriptors"));
    EXPECT_THAT(said, HasSubstr("raise the limit"));
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;
  }
}

}  // namespace
