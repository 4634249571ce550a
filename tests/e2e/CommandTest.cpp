// The korvel command against a running agent: its output and exit status.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/e2e/Switch.h"

using namespace TestSupport;

namespace {

TEST(KorvelCommand, ExitsWithZeroOneOrTwo) {
  Switch tested;
  ASSERT_TRUE(tested.start());
  ASSERT_TRUE(tested.insertRoutes(0, 3, 1).ok());
  const std::string config = "p4runtime/config/system";
  const struct {
    const char* what;
    std::vector<std::string> arguments;
    int code;
  } cases[] = {
      {"status", {"status"}, 0},
      {"status as JSON", {"status", "--json"}, 0},
      {"get an entity", {"get", config}, 0},
      {"get an attribute", {"get", config, "deviceId"}, 0},
      {"dump a table", {"table", "dump", Router::rowTable(Router::routeTable)}, 0},
      {"get a path that is not there", {"get", "p4runtime/config/nowhere"}, 1},
      {"get an attribute that is not there", {"get", config, "colour"}, 1},
      {"set a value of the wrong type", {"set", config, "grpcServerPort", "many"}, 1},
      {"set a read-only entity", {"set", "p4runtime/status/system", "brokenInvariant", "true"}, 1},
      {"call what cannot be called", {"call", config, "fly"}, 1},
      {"dump a table that is not there", {"table", "dump", "nowhere"}, 1},
      {"unknown subcommand", {"frobnicate"}, 2},
      {"missing argument", {"set", config}, 2},
      {"unknown option", {"status", "--colour"}, 2},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const CommandResult result = tested.agent.korvel(c.arguments);
    EXPECT_EQ(result.exit, (ExitStatus{.code = c.code})) << result.output << result.error;
    if (c.code == 0) {
      EXPECT_NE(result.output, "");
      EXPECT_EQ(result.error, "");
    } else {
      EXPECT_EQ(result.output, "");
      EXPECT_EQ(std::count(result.error.begin(), result.error.end(), '\n'), 1) << result.error;
    }
  }
  tested.agent.kill();
  const CommandResult dead = tested.agent.korvel({"status"});
  EXPECT_EQ(dead.exit, (ExitStatus{.code = 1})) << dead.output;
  EXPECT_EQ(std::count(dead.error.begin(), dead.error.end(), '\n'), 1) << dead.error;
}

}  // namespace
