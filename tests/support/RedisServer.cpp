// See RedisServer.h.
#include "tests/support/RedisServer.h"

#include <stdexcept>
#include <utility>

namespace TestSupport {
namespace {

constexpr const char* socketName = "/redis.sock";

}  // namespace

bool RedisServer::installed() {
  return TestSupport::run({"redis-server", "--version"}).exit.code == 0 &&
         TestSupport::run({"redis-cli", "--version"}).exit.code == 0;
}

RedisServer::RedisServer(const std::string& folder, std::vector<std::string> arguments)
    : folder_(folder), arguments_(std::move(arguments)) {
  start();
}

std::string RedisServer::address(const std::string& prefix) const {
  return "unix:" + folder_ + socketName + "?prefix=" + prefix;
}

void RedisServer::start() {
  process_.reset();
  std::vector<std::string> command{
      "redis-server",      "--port", "0", "--save", "", "--dir", folder_, "--unixsocket",
      folder_ + socketName};
  command.insert(command.end(), arguments_.begin(), arguments_.end());
  process_ = std::make_unique<Process>(command, folder_ + "/redis.log", folder_ + "/redis.log");
  const bool serves = waitUntil([this] { return !run({"PING"}).empty(); }, process_->descriptor());
  if (!serves) throw std::runtime_error("no Redis: " + fileText(folder_ + "/redis.log"));
}

std::string RedisServer::run(std::vector<std::string> command) const {
  command.insert(command.begin(), {"redis-cli", "-s", folder_ + socketName});
  std::string output = TestSupport::run(command).output;
  if (output.ends_with('\n')) output.pop_back();
  return output;
}

}  // namespace TestSupport
