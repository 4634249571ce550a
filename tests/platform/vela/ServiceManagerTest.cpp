// The process's line to its service manager.
#include "platform/vela/ServiceManager.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/vela/Descriptors.h"
#include "tests/support/TempDir.h"

namespace Vela {
namespace {

class ServiceManagerTest : public testing::Test {
 protected:
  ServiceManagerTest() : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0)) {
    const std::string path = folder_.file("notify");
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    EXPECT_EQ(bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    setenv("NOTIFY_SOCKET", path.c_str(), 1);
    setenv("WATCHDOG_USEC", "30000000", 1);
    unsetenv("WATCHDOG_PID");
  }
  ~ServiceManagerTest() override {
    for (const char* name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) unsetenv(name);
  }

  // The next message; empty without one.
  std::string heard() {
    char bytes[4096];
    const ssize_t size = recv(socket_.get(), bytes, sizeof bytes, 0);
    return size > 0 ? std::string(bytes, size) : "";
  }

  TestSupport::TempDir folder_;
  UniqueFd socket_;
};

TEST_F(ServiceManagerTest, HearsHowTheProcessIs) {
  ServiceManager manager;
  EXPECT_EQ(manager.alivePeriod(), std::chrono::seconds(10));
  EXPECT_TRUE(manager.ready());
  EXPECT_EQ(heard(), "READY=1");
  manager.statusIs("serves\nmore");
  manager.statusIs("serves\nmore");
  EXPECT_EQ(heard(), "STATUS=serves");
  EXPECT_EQ(heard(), "");
  manager.alive();
  EXPECT_EQ(heard(), "WATCHDOG=1");
  ServiceManager::stopping();
  EXPECT_EQ(heard(), "STOPPING=1");
}

// A reactor once stood still, since the service manager did not read.
TEST_F(ServiceManagerTest, OneThatDoesNotReadHoldsNobodyUp) {
  ServiceManager manager;
  while (manager.ready()) {
  }
  manager.alive();
  manager.statusIs("serves");
  EXPECT_FALSE(manager.ready());
  while (!heard().empty()) {
  }
  manager.statusIs("serves");  // it has not been sent
  EXPECT_EQ(heard(), "STATUS=serves");
}

TEST_F(ServiceManagerTest, TheWatchdogOfAnotherProcessIsNotFed) {
  setenv("WATCHDOG_PID", std::to_string(getpid() + 1).c_str(), 1);
  ServiceManager manager;
  EXPECT_FALSE(manager.alivePeriod());
  manager.alive();
  EXPECT_EQ(heard(), "");
}

TEST_F(ServiceManagerTest, WithoutOneNothingHappens) {
  unsetenv("NOTIFY_SOCKET");
  ServiceManager manager;
  EXPECT_FALSE(manager.isPresent());
  EXPECT_FALSE(manager.alivePeriod());
  EXPECT_TRUE(manager.ready());
  manager.statusIs("serves");
  ServiceManager::stopping();
  EXPECT_EQ(heard(), "");
}

}  // namespace
}  // namespace Vela
