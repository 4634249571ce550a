// This process's part of a Redis, on a loop that a test turns.
#pragma once

#include <algorithm>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/orrery/EntityTypes.h"
#include "platform/orrery/redis/RedisOrrery.h"
#include "platform/vela/Timer.h"
#include "tests/platform/orrery/Support.h"
#include "tests/support/RedisServer.h"
#include "tests/support/TempDir.h"

namespace Orrery {

// Entities as an operator writes them: JSON by path.
using Entities = std::map<std::string, std::string>;

// A database with "config/port", "ports" to make others in, and "status/port"; its setting "cookie"
// is heeded by a start alone.
struct ConfiguredDatabase : DatabaseFixture {
  ConfiguredDatabase() {
    const Vela::ActivityLock lock;
    TheEntityTypes().typeIs<Port>("Test::Port");
    port = portIs("config/port");
    statusPort = portIs("status/port");
    database->entityIs("ports", Vela::make<Ports>("ports"));
  }
  void cookieNeedsStart() {
    database->settingCheckIs([](const auto&, const auto& attribute, const auto&) {
      return attribute.name() == std::string("cookie") ? Vela::Outcome::failure("a start reads it")
                                                       : Vela::Outcome();
    });
  }
  Vela::Ptr<Vela::Entity> at(const std::string& path) { return database->entity(path); }

  // Turns the loop until the condition holds: true; false after a test's patience.
  bool runUntil(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + TestSupport::patience;
    bool holds = false;
    Vela::Timer look(loop, [&] {
      holds = condition();
      if (holds || std::chrono::steady_clock::now() > end) loop.stop();
    });
    look.start(std::chrono::milliseconds(0), std::chrono::milliseconds(5));
    loop.run();
    return holds;
  }

  Vela::Ptr<Port> port;
  Vela::Ptr<Port> statusPort;
  LayeredConfig layers{*database};
};

// Quick, as tests of what happens in the end and not of when.
inline RedisTiming quickTiming() {
  using std::chrono::milliseconds;
  return {.look = milliseconds(20),
          .patience = milliseconds(500),
          .shortestPause = milliseconds(10),
          .longestPause = milliseconds(100),
          .aliveRefresh = milliseconds(50),
          .aliveExpiry = milliseconds(10000)};
}

// The process's part, with the lines that it says.
class Part {
 public:
  Part(ConfiguredDatabase& tested, const std::string& address, const std::string& copyFile) {
    RedisOptions options;
    options.address = redisAddressFromText(address);
    options.timing = quickTiming();
    options.copyFile = copyFile;
    options.startPatience = std::chrono::milliseconds(200);
    options.unpublished = {"status/secret"};
    options.say = [this](const std::string& line) { lines.push_back(line); };
    options.summary = [this] { return summary; };
    orrery = std::make_unique<RedisOrrery>(tested.loop, tested.layers, std::move(options));
  }
  bool said(const std::string& text) const {
    return std::ranges::any_of(
        lines, [&](const std::string& line) { return line.find(text) != std::string::npos; });
  }

  std::vector<std::string> lines;
  std::string summary = R"({"state": "fine"})";
  std::unique_ptr<RedisOrrery> orrery;
};

}  // namespace Orrery
