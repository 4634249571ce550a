// Connections beyond the limit, and a process without descriptors.
#include "PI/server/Listener.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <vector>

#include "PI/server/Limits.h"

namespace pi::server {
namespace {

constexpr int kPatienceMs = 60'000;

class ListenerTest : public testing::Test {
 protected:
  ListenerTest() : listener_("0.0.0.0:0") {
    listener_.start([this](int, int fd) {
      const std::lock_guard lock(mutex_);
      accepted_.push_back(fd);
      changed_.notify_all();
    });
  }
  ~ListenerTest() override { limitsAre({}); }

  static int client() { return socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0); }
  void connectTo(int fd) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(listener_.port()));
    ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  }
  // Waits for the next connection that was handed over; -1 when none comes.
  int accepted() {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::milliseconds(kPatienceMs),
                      [this] { return !accepted_.empty(); });
    if (accepted_.empty()) return -1;
    const int fd = accepted_.front();
    accepted_.pop_front();
    return fd;
  }
  static bool isClosedByOtherEnd(int fd) {
    pollfd polled{fd, POLLIN, 0};
    char byte = 0;
    return poll(&polled, 1, kPatienceMs) == 1 && read(fd, &byte, 1) <= 0;
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<int> accepted_;
  Listener listener_;
};

TEST_F(ListenerTest, ClosesConnectionsBeyondTheLimitUntilOneEnds) {
  limitsAre({.connections = 2});
  int clients[4];
  for (int& fd : clients) fd = client();
  connectTo(clients[0]);
  connectTo(clients[1]);
  const int first = accepted();
  ASSERT_GE(first, 0);
  ASSERT_GE(accepted(), 0);
  connectTo(clients[2]);
  EXPECT_TRUE(isClosedByOtherEnd(clients[2]));
  EXPECT_EQ(listener_.refused(), 1u);
  // Another file may get the number of the one that ended.
  close(first);
  const int other = open("/dev/null", O_RDONLY | O_CLOEXEC);
  EXPECT_EQ(other, first);
  connectTo(clients[3]);
  EXPECT_GE(accepted(), 0);
}

// An IPv4 address of this machine that is not loopback; 0 where it has none.
in_addr_t outerAddress() {
  ifaddrs* all = nullptr;
  if (getifaddrs(&all) != 0) return 0;
  in_addr_t found = 0;
  for (const ifaddrs* one = all; one; one = one->ifa_next) {
    if (!one->ifa_addr || one->ifa_addr->sa_family != AF_INET) continue;
    const auto address = reinterpret_cast<const sockaddr_in*>(one->ifa_addr)->sin_addr.s_addr;
    if ((ntohl(address) >> 24) != 127) found = address;
  }
  freeifaddrs(all);
  return found;
}

// A machine that opens all the connections that it gets leaves some for others.
TEST_F(ListenerTest, LeavesAQuarterOfTheConnectionsToOtherMachines) {
  const in_addr_t outer = outerAddress();
  if (outer == 0) GTEST_SKIP() << "this machine has no address but loopback";
  limitsAre({.connections = 4});
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = outer;
  address.sin_port = htons(static_cast<uint16_t>(listener_.port()));
  int clients[4];
  for (int& fd : clients) {
    fd = client();
    ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  }
  for (int i = 0; i < 3; ++i) EXPECT_GE(accepted(), 0);
  EXPECT_TRUE(isClosedByOtherEnd(clients[3]));
  const int local = client();
  connectTo(local);
  EXPECT_GE(accepted(), 0);
}

// A listener that met the end of descriptors once was deaf for good.
TEST_F(ListenerTest, ServesAgainOnceThereAreDescriptorsAgain) {
  int clients[3];
  for (int& fd : clients) fd = client();
  connectTo(clients[0]);
  ASSERT_GE(accepted(), 0);
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit low{std::min<rlim_t>(200, limit.rlim_cur), limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
  std::vector<int> used;
  for (int fd; (fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;) used.push_back(fd);
  connectTo(clients[1]);
  EXPECT_TRUE(isClosedByOtherEnd(clients[1]));
  for (const int fd : used) close(fd);
  connectTo(clients[2]);
  EXPECT_GE(accepted(), 0);
  setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace
}  // namespace pi::server
