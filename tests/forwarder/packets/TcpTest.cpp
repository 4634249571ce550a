// Hosts in namespaces talk TCP and UDP through the switch; their devices are as the kernel makes
// them.
#include <arpa/inet.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <future>
#include <thread>

#include "platform/vela/Descriptors.h"
#include "tests/forwarder/packets/SwitchFixture.h"

namespace Forwarder {
namespace {

using Vela::UniqueFd;

// A thread in a network namespace of its own, at the far end of a port.
class HostThread {
 public:
  // Work runs there once begin() has been called.
  template <typename Work>
  explicit HostThread(Work work)
      : thread_([this, work] {
          id_.set_value(unshare(CLONE_NEWNET) == 0 ? static_cast<int>(syscall(SYS_gettid)) : -1);
          begin_.get_future().wait();
          work();
        }) {}
  ~HostThread() { join(); }

  int id() { return id_.get_future().get(); }  // once; -1: no namespace
  void begin() { begin_.set_value(); }
  void join() {
    if (thread_.joinable()) thread_.join();
  }

 private:
  std::promise<int> id_;
  std::promise<void> begin_;
  std::thread thread_;
};

std::string mac(uint32_t port) { return fmt::format("02:00:00:00:00:{:02x}", port); }

// The addresses that choose the port, and no need to ask for them.
void configure(int thread, uint32_t port, uint32_t other) {
  using TestSupport::ip;
  const std::string device = fmt::format("h{}", port);
  const UniqueFd here(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
  ip(fmt::format("link add s{} type veth peer name {}", port, device));
  const UniqueFd there(
      open(fmt::format("/proc/self/task/{}/ns/net", thread).c_str(), O_RDONLY | O_CLOEXEC));
  ip(fmt::format("link set {} address {}", device, mac(port)));
  ip(fmt::format("link set {} netns /proc/{}/task/{}/ns/net", device, getpid(), thread));
  TestSupport::deviceUpIs(fmt::format("s{}", port), true);
  ASSERT_EQ(setns(there.get(), CLONE_NEWNET), 0);
  ip(fmt::format("addr add 10.0.0.{}/24 dev {}", port, device));
  ip(fmt::format("link set {} up", device));
  ip(fmt::format("neigh add 10.0.0.{} lladdr {} dev {}", other, mac(other), device));
  ASSERT_EQ(setns(here.get(), CLONE_NEWNET), 0);
}

sockaddr_in address(uint32_t host) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(5201);
  inet_pton(AF_INET, fmt::format("10.0.0.{}", host).c_str(), &address.sin_addr);
  return address;
}

const sockaddr* plain(const sockaddr_in& address) {
  return reinterpret_cast<const sockaddr*>(&address);
}

std::string pattern(size_t bytes) {
  std::string text(bytes, '\0');
  for (size_t i = 0; i < bytes; ++i) text[i] = static_cast<char>(i * 31 + (i >> 11));
  return text;
}

// All that one connection brings.
std::string receiveAll(std::promise<void>& listening) {
  const UniqueFd listener(socket(AF_INET, SOCK_STREAM, 0));
  const sockaddr_in own = address(2);
  EXPECT_EQ(bind(listener.get(), plain(own), sizeof own), 0);
  EXPECT_EQ(listen(listener.get(), 1), 0);
  listening.set_value();
  const timeval patience{.tv_sec = 60};
  setsockopt(listener.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  const UniqueFd connection(accept(listener.get(), nullptr, nullptr));
  setsockopt(connection.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  std::string all;
  std::string buffer(1 << 16, '\0');
  for (ssize_t got; (got = recv(connection.get(), buffer.data(), buffer.size(), 0)) > 0;) {
    all.append(buffer, 0, static_cast<size_t>(got));
  }
  return all;
}

void sendAll(const std::string& text) {
  const UniqueFd connection(socket(AF_INET, SOCK_STREAM, 0));
  const timeval patience{.tv_sec = 60};
  setsockopt(connection.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  const sockaddr_in peer = address(2);
  EXPECT_EQ(connect(connection.get(), plain(peer), sizeof peer), 0);
  for (size_t at = 0; at < text.size();) {
    const ssize_t sent = send(connection.get(), text.data() + at, text.size() - at, MSG_NOSIGNAL);
    ASSERT_GT(sent, 0);
    at += static_cast<size_t>(sent);
  }
}

class TcpTest : public SwitchTest {};

// Their kernels leave checksums, and the cutting of 64 KiB into segments, to their devices.
TEST_F(TcpTest, HostsNeedNoSettingsToTalkThroughTheSwitch) {
  const std::string text = pattern(8 << 20);
  std::promise<void> listening;
  std::string got;
  HostThread receiver([&] { got = receiveAll(listening); });
  HostThread sender([&] {
    listening.get_future().wait();
    sendAll(text);
  });
  const int one = sender.id();
  const int two = receiver.id();
  if (one < 0 || two < 0) {
    sender.begin();
    receiver.begin();
    FAIL() << "no namespace for a thread";
  }
  configure(one, 1, 2);
  configure(two, 2, 1);
  start();
  push();
  portsAre({{1, "s1"}, {2, "s2"}});
  receiver.begin();
  sender.begin();
  sender.join();
  receiver.join();
  EXPECT_TRUE(got == text) << got.size() << " of " << text.size() << " bytes";
  const PortCounts counts = report(1).counts;
  EXPECT_EQ(counts.of(PacketDrop::unreadable), 0);
  EXPECT_EQ(report(2).counts.of(PacketDrop::tooLong), 0);
  EXPECT_GT(counts.received, text.size() / 1500);  // ordinary packets are what the program sees
}

}  // namespace
}  // namespace Forwarder
