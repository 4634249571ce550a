#include "PI/server/ListenAddress.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

namespace pi::server {
namespace {

using testing::HasSubstr;

// Empty: the address can be listened on.
std::string obstacle(const std::string& address) {
  try {
    for (const int fd : listeningSockets(address, 1)) {
      EXPECT_NE(portOf(fd), 0);
      close(fd);
    }
    return "";
  } catch (const std::runtime_error& e) {
    return e.what();
  }
}

TEST(ListeningSockets, NameTheAddressAndAWayOut) {
  const struct {
    const char* address;
    const char* obstacle;  // null: none
  } cases[] = {
      {"127.0.0.1:0", nullptr},
      {"localhost:0", nullptr},
      {"", "not an address"},
      {":", "not an address"},
      {"127.0.0.1", "not an address"},
      {"127.0.0.1:", "not an address"},
      {"127.0.0.1:http", "not an address"},
      {"127.0.0.1:65536", "not an address"},
      {"127.0.0.1:-1", "not an address"},
      {"::1:9559", "not an address"},
      {"[:9559", "not an address"},
      {"192.0.2.1:0", "no interface has this address"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.address);
    const std::string line = obstacle(c.address);
    if (!c.obstacle) {
      EXPECT_EQ(line, "");
      continue;
    }
    EXPECT_THAT(line, HasSubstr("cannot listen on " + std::string(c.address) + ": "));
    EXPECT_THAT(line, HasSubstr(c.obstacle));
  }
}

TEST(ListeningSockets, SeeAPortInUse) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), size), 0);
  ASSERT_EQ(listen(fd, 1), 0);
  ASSERT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size), 0);
  const std::string text = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
  EXPECT_EQ(obstacle(text), "cannot listen on " + text + ": address in use; choose another port");
  close(fd);
}

}  // namespace
}  // namespace pi::server
