// Replies that a sound Redis does not give: without an end in size, and without one in time.
#include "platform/orrery/redis/RedisConnection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include "platform/vela/Descriptors.h"
#include "platform/vela/UnixListener.h"
#include "tests/support/TempDir.h"

namespace Orrery {
namespace {

using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

constexpr size_t mib = 1024 * 1024;

// Gives each connection that sends something the same reply. Its connections must end before it.
class FakeServer {
 public:
  // Called again and again for the next piece, until it is empty or nobody takes it.
  using Pieces = std::function<std::string(size_t sent)>;

  FakeServer(const std::string& path, Pieces pieces) : pieces_(std::move(pieces)) {
    const Vela::UnixAddress address(path);
    bind(listener_.get(), address.get(), Vela::UnixAddress::size());
    listen(listener_.get(), 4);
    thread_ = std::thread([this] { run(); });
  }
  ~FakeServer() {
    shutdown(listener_.get(), SHUT_RDWR);
    thread_.join();
  }
  size_t sent() const { return sent_; }

 private:
  void run() {
    while (true) {
      const Vela::UniqueFd caller(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (!caller) return;
      char request[1024];
      if (recv(caller.get(), request, sizeof request, 0) > 0) reply(caller.get());
    }
  }
  void reply(int caller) {
    size_t sent = 0;
    for (std::string piece = pieces_(0); !piece.empty(); piece = pieces_(sent)) {
      if (send(caller, piece.data(), piece.size(), MSG_NOSIGNAL) < 0) break;
      sent += piece.size();
    }
    sent_ += sent;
  }

  const Pieces pieces_;
  const Vela::UniqueFd listener_{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  std::atomic<size_t> sent_ = 0;
  std::thread thread_;
};

class RedisConnectionTest : public testing::Test {
 protected:
  RedisAddress address() const { return redisAddressFromText("unix:" + path + "?prefix=s1"); }
  const TestSupport::TempDir folder;
  const std::string path = folder.file("redis.sock");
};

// The agent ended by lack of memory.
TEST_F(RedisConnectionTest, TakesNoMoreOfAReplyThanAHashMayHave) {
  FakeServer server(path, [](size_t sent) -> std::string {
    if (sent == 0) return "*2\r\n$1\r\nx\r\n$500000000\r\n";
    return sent < 128 * mib ? std::string(mib, 'a') : "";
  });
  {
    RedisConnection connection(address(), std::chrono::seconds(20));
    for (int i = 0; i < 2; ++i) {
      EXPECT_THAT([&] { connection.hash("s1/config"); },
                  ThrowsMessage<RedisRefusal>(HasSubstr("s1/config is larger than 16 MiB")));
    }
    EXPECT_THROW(connection.text("s1/alive"), RedisAway);
  }
  EXPECT_LT(server.sent(), 100 * mib) << "of three replies";
}

// Each byte gave the reply a time-out of its own, and the connection waited for ever.
TEST_F(RedisConnectionTest, GivesUpAReplyThatHardlyMoves) {
  const FakeServer server(path, [](size_t sent) -> std::string {
    if (sent == 0) return "$1000\r\n";
    poll(nullptr, 0, 10);
    return sent < 1000 ? "a" : "";
  });
  RedisConnection connection(address(), std::chrono::milliseconds(200));
  EXPECT_THAT([&] { connection.text("s1/alive"); },
              ThrowsMessage<RedisAway>(HasSubstr("does not answer within 0.2 s")));
}

}  // namespace
}  // namespace Orrery
