// The agent's switch: disabled for good, disabled in vain, and enabled again meanwhile.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/e2e/Load.h"

using namespace TestSupport;
using testing::AnyOf;
using testing::Eq;
using testing::HasSubstr;

namespace {

// A folder with plugins of the tests' own.
class Plugins {
 public:
  explicit Plugins(const std::vector<std::string>& names) {
    for (const std::string& name : names) {
      const std::string file = name + ".so";
      std::filesystem::create_symlink(std::string(KORVEL_TEST_PLUGINS) + "/" + file,
                                      folder_.file(file));
    }
  }
  const std::string& path() const { return folder_.path(); }

 private:
  const TempDir folder_;
};

void enabledIs(Switch& tested, bool enabled) {
  const CommandResult set = tested.agent.korvel(
      {"set", "p4runtime/config/system", "enabled", enabled ? "true" : "false"});
  ASSERT_EQ(set.exit.code, 0) << set.error;
}

void expectRefused(Switch& tested) {
  const auto refused = AnyOf(Eq(grpc::FAILED_PRECONDITION), Eq(grpc::UNAVAILABLE));
  EXPECT_THAT(tested.insertRoutes(900, 901, 1).status.error_code(), refused);
  EXPECT_THAT(tested.routes().status.error_code(), refused);
}

TEST(Disable, WithoutPluginsEndsTheAgentAndKeepsEverything) {
  const Plugins none({});
  Switch tested({.pluginDirectory = none.path()});
  ASSERT_TRUE(tested.start());
  ASSERT_TRUE(tested.insertRoutes(0, 50, 1).ok());
  enabledIs(tested, false);
  EXPECT_EQ(tested.agent.process().exitStatus(), (ExitStatus{.code = 0})) << tested.agent.output();
  ASSERT_TRUE(tested.startAgent() && tested.connectController());
  EXPECT_EQ(tested.routes().entries.size(), 50u);
  EXPECT_EQ(tested.disagreement(), "");
}

TEST(Disable, WaitsForAPluginThatNeverAnswersUntilEnabledAgain) {
  const Plugins plugins({"never", "outdated", "prompt"});
  Switch tested({.pluginDirectory = plugins.path()});
  ASSERT_TRUE(tested.start());
  ASSERT_TRUE(tested.insertRoutes(0, 50, 1).ok());
  enabledIs(tested, false);
  const CommandResult status = tested.agent.korvel({"status"});
  EXPECT_THAT(status.output, HasSubstr("disable: plugin never, to stop"));
  EXPECT_THAT(status.output, HasSubstr("it was built for version 2 of the plugin interface"));
  expectRefused(tested);
  ASSERT_TRUE(tested.agent.process().running());
  enabledIs(tested, true);
  ASSERT_TRUE(tested.agent.waitServing()) << tested.agent.output();
  EXPECT_EQ(tested.routes().entries.size(), 50u);
  EXPECT_TRUE(tested.insertRoutes(50, 60, 1).ok());
  EXPECT_EQ(tested.disagreement(), "");
}

TEST(Disable, FastAndOftenUnderLoadLosesNothing) {
  const Plugins plugins({"never"});
  Switch tested({.pluginDirectory = plugins.path()});
  ASSERT_TRUE(tested.start());
  Load load(tested, printedSeed());
  for (int round = 0; round < 5; ++round) {
    SCOPED_TRACE(round);
    const uint64_t acknowledged = load.acknowledged();
    load.start();
    waitUntil([&] { return load.acknowledged() > acknowledged + 3 || !load.writing(); });
    for (int i = 0; i < 5; ++i) {
      enabledIs(tested, false);
      enabledIs(tested, true);
    }
    load.stop();
    ASSERT_TRUE(tested.agent.waitServing()) << tested.agent.output();
    EXPECT_EQ(load.broken(), "");
    EXPECT_EQ(tested.disagreement(), "");
  }
  EXPECT_EQ(tested.agent.korvel({"get", "p4runtime/status/system", "critical"}).output, "false\n");
}

TEST(Disabled, AgentRefusesControllersUntilItIsEnabled) {
  Switch tested({.enabled = false});
  tested.agent.start();
  ASSERT_TRUE(tested.startForwarder());
  ASSERT_TRUE(
      waitUntil([&] { return tested.connectController(); }, tested.agent.process().descriptor()));
  expectRefused(tested);
  enabledIs(tested, true);
  ASSERT_TRUE(tested.agent.waitServing()) << tested.agent.output();
  EXPECT_TRUE(tested.insertRoutes(0, 50, 1).ok());
  EXPECT_EQ(tested.disagreement(), "");
}

// The example plugin, which a build comes with.
TEST(TableUse, IsPublishedAndFollowsTheTables) {
  Switch tested;
  ASSERT_TRUE(tested.start());
  const auto set = [&](const char* settings) {
    return tested.agent.korvel({"set", "p4runtime/config/plugin/table-use", "settings", settings});
  };
  const auto shows = [&](const char* text) {
    return waitUntil([&] {
      const auto got = tested.agent.korvel({"get", "p4runtime/status/plugin/table-use"});
      return got.output.find(text) != std::string::npos;
    });
  };
  EXPECT_EQ(set("period=0.01").exit.code, 0);
  ASSERT_TRUE(tested.insertRoutes(0, 70, 1).ok());
  EXPECT_TRUE(shows("entries=70 "));
  EXPECT_EQ(set("period=often").exit.code, 0);
  EXPECT_TRUE(shows("refused its settings: settings are \"period=SECONDS\""));
  enabledIs(tested, false);  // it stops at once
  EXPECT_EQ(tested.agent.process().exitStatus(), (ExitStatus{.code = 0})) << tested.agent.output();
}

}  // namespace
