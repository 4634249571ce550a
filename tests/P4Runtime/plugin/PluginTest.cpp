// Loading plugins, good and bad, and the calls between them and the agent.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include "P4Runtime/plugin/PluginLoader.h"
#include "platform/vela/ActivityLock.h"
#include "tests/support/TempDir.h"

namespace P4Runtime {
namespace {

using P4RuntimeConfig::P4RtSystemConfig;
using testing::HasSubstr;
using testing::StartsWith;

class PluginTest : public testing::Test {
 protected:
  // Lets the folder have a plugin of the tests' own.
  void install(const std::string& name, const std::string& as = "") {
    std::filesystem::create_symlink(std::string(KORVEL_TEST_PLUGINS) + "/" + name + ".so",
                                    pathOf(as.empty() ? name : as));
  }
  std::string pathOf(const std::string& name) const { return folder_.file(name + ".so"); }
  // Returns its words on standard error.
  std::string load() {
    testing::internal::CaptureStderr();
    loader_->load(folder_.path());
    return testing::internal::GetCapturedStderr();
  }
  const PluginStatus* status(const std::string& name) const {
    return dynamic_cast<const PluginStatus*>(statuses_->entity(name).get());
  }
  std::string state(const std::string& name) const { return status(name)->state(); }
  void settingsAre(const std::string& name, const std::string& settings) {
    testing::internal::CaptureStderr();
    dynamic_cast<PluginConfig&>(*configs_->entity(name)).settingsIs(settings);
    said_ = testing::internal::GetCapturedStderr();
  }
  std::string answer() const { return status("probe")->published("answer"); }
  void runUntilAnswered() {
    const auto answered =
        status("probe")->publishedCollection().observeKeys([this](auto&) { loop_.stop(); });
    loop_.run();
  }

  const Vela::ActivityLock lock_;
  const TestSupport::TempDir folder_;
  Vela::ReactorLoop loop_;
  const std::unique_ptr<Orrery::Database> database_ = Orrery::embeddedDatabase(loop_);
  const Vela::Ptr<Orrery::Directory> configs_ = Vela::make<PluginConfigDir>("config");
  const Vela::Ptr<Orrery::Directory> statuses_ = Vela::make<Orrery::Directory>("status");
  const Vela::Ptr<Orrery::Directory> data_ = Vela::make<Orrery::Directory>("data");
  const Vela::Ptr<AllPluginConfig> all_ = Vela::make<AllPluginConfig>("all");
  const Vela::Ptr<P4RtSystemConfig> system_ = Vela::make<P4RtSystemConfig>("system");
  Vela::Ptr<PluginLoader> loader_ = Vela::make<PluginLoader>(
      PluginContext{loop_, *database_, configs_, statuses_, data_, all_, system_, [] {
                      return std::vector<TableUse>{{"acl", 3, 8}, {"routes", 2, 0}};
                    }});
  std::string said_;
};

// Bad files in the folder keep no plugin from loading, and nobody waits for them.
TEST_F(PluginTest, WhatCannotBeLoadedIsRefusedByNameAndHoldsNobodyUp) {
  const auto write = [](const std::string& bytes) {
    return [bytes](const std::string& path) { std::ofstream(path) << bytes; };
  };
  const auto linkTo = [](const std::string& target) {
    return [target](const std::string& path) { std::filesystem::create_symlink(target, path); };
  };
  const auto cutShort = [](const std::string& path) {
    std::filesystem::copy(KORVEL_TEST_PLUGINS "/prompt.so", path);
    std::filesystem::resize_file(path, 4096);
  };
  const struct {
    const char* name;
    std::function<void(const std::string& path)> make;
    const char* said;
  } cases[] = {
      {"text", write("#!/bin/sh"), "it is no shared library"},
      {"empty", write(""), "it is no shared library"},
      {"magic", write("\177ELF\2 and no more"), "it is no shared library"},
      {"short", cutShort, "it has been cut short"},
      {"folder", [](const auto& path) { std::filesystem::create_directory(path); }, "no file"},
      {"pipe", [](const auto& path) { mkfifo(path.c_str(), 0600); }, "no file"},
      {"loop", linkTo("loop.so"), "symbolic links"},
      {"dangling", linkTo("nowhere"), "No such file"},
      {"stranger", linkTo("/lib/x86_64-linux-gnu/libm.so.6"), "no korvel_plugin_descriptor"},
      {"outdated", linkTo(KORVEL_TEST_PLUGINS "/outdated.so"), "version 2 of the plugin interface"},
      {"twice", linkTo(KORVEL_TEST_PLUGINS "/prompt.so"), "its name is prompt"},
      {"failing", linkTo(KORVEL_TEST_PLUGINS "/failing.so"), "start answered 3: no coffee"},
      {"throwing", linkTo(KORVEL_TEST_PLUGINS "/throwing.so"), "start failed with an exception"},
  };
  install("prompt");
  for (const auto& c : cases) c.make(pathOf(c.name));
  std::ofstream(pathOf("no name")) << "";
  const std::string said = load();
  EXPECT_THAT(said, HasSubstr("no name.so cannot be used: a plugin's name is"));
  all_->disableRequestIdInc(1);
  all_->cleanupRequestIdInc(1);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_NE(status(c.name), nullptr);
    EXPECT_THAT(state(c.name), StartsWith("failed: "));
    EXPECT_THAT(state(c.name), HasSubstr(c.said));
    EXPECT_THAT(said, HasSubstr(pathOf(c.name)));
    EXPECT_EQ(status(c.name)->disableRequestId(), 1u);
    EXPECT_EQ(status(c.name)->cleanupRequestId(), 1u);
  }
  EXPECT_EQ(status("prompt")->disableRequestId(), 1u);
  EXPECT_EQ(status("prompt")->version(), "1.2");
  EXPECT_EQ(state("prompt"), "disabled");
}

TEST_F(PluginTest, FolderThatCannotBeReadIsALine) {
  std::ofstream(folder_.file("file")) << "";
  std::filesystem::create_symlink("around", folder_.file("around"));
  for (const char* name : {"file", "around", "missing"}) {
    testing::internal::CaptureStderr();
    loader_->load(folder_.file(name));
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                HasSubstr("cannot read " + folder_.file(name)));
  }
}

TEST_F(PluginTest, SettingsComeFromTheConfigurationAndMayBeRefused) {
  const auto config = Vela::make<PluginConfig>("probe");
  config->settingsIs("hello");
  configs_->entityIs("probe", config);
  configs_->entityIs("ghost", Vela::make<PluginConfig>("ghost"));
  install("probe");
  EXPECT_THAT(load(), HasSubstr("plugin ghost is configured, but there is no ghost.so"));
  EXPECT_EQ(status("probe")->published("settings at start"), "hello");
  settingsAre("probe", "refuse");
  EXPECT_EQ(said_, "korvel: plugin probe: no such setting\n") << "in one line";
  EXPECT_EQ(state("probe"), "running, but refused its settings: no such setting");
  settingsAre("probe", "tables");
  EXPECT_EQ(state("probe"), "running");
  EXPECT_EQ(answer(), "acl 3/8 routes 2/0 ");
  configs_->entityDel("probe");
  EXPECT_EQ(state("probe"), "running");
}

TEST_F(PluginTest, HostReadsTheStateDatabaseAndRefusesMisuse) {
  database_->entityIs("some/system", system_);
  database_->entityIs("some/status", statuses_);
  system_->forwardingPipelineConfigFilePathIs("a path longer than the buffer");
  install("probe");
  load();
  const struct {
    const char* settings;
    const char* answer;
  } cases[] = {
      {"read some/system enabled", "4 true"},
      {"read some/system forwardingPipelineConfigFilePath", "29 a path longer t"},
      {"read some/system nothing", "-4 "},
      {"read some//system/ enabled", "-4 "},
      {"list some", "status system 0"},
      {"list nowhere", "-4"},
      {"collection some/status/probe published", "answer=-4 settings at start= 0"},
      {"done 1", "-3"},
      {"null", "refused"},
      {"flood", "-5"},
      {"thread", "-1"},
  };
  for (const auto& c : cases) {
    settingsAre("probe", c.settings);
    EXPECT_EQ(answer(), c.answer) << c.settings;
  }
  runUntilAnswered();
  EXPECT_EQ(answer(), "posted");
  settingsAre("probe", "timer");
  runUntilAnswered();
  EXPECT_EQ(answer(), "ticked");
  EXPECT_FALSE(status("probe")->publishedHas("stolen"));
}

// A failure is the plugin's own: it is stopped, and no disable waits for it.
TEST_F(PluginTest, PluginThatThrowsIsStopped) {
  install("probe");
  load();
  all_->disableRequestIdInc(1);
  EXPECT_EQ(status("probe")->disableRequestId(), 0u);
  settingsAre("probe", "throw");
  EXPECT_THAT(said_, HasSubstr("plugin probe"));
  EXPECT_THAT(said_, HasSubstr("settings_changed failed: out of coffee"));
  EXPECT_EQ(status("probe")->disableRequestId(), 1u);
  settingsAre("probe", "tables");
  EXPECT_EQ(answer(), "") << "it is not called any more";
}

// Enabled again, each plugin that was asked to disable itself starts once more; late responses are
// lost.
TEST_F(PluginTest, EnablingAgainStartsWhoeverWasAskedToStop) {
  system_->enabledIs(false);
  install("late");
  install("prompt");
  load();
  EXPECT_EQ(state("late"), "waits until the agent is enabled");
  system_->enabledIs(true);
  EXPECT_EQ(state("late"), "running");
  for (uint32_t id = 1; id < 4; ++id) {
    SCOPED_TRACE(id);
    system_->enabledIs(false);
    all_->disableRequestIdInc(1);
    EXPECT_EQ(status("prompt")->disableRequestId(), id);
    EXPECT_EQ(state("late"), "asked to stop");
    system_->enabledIs(true);
    settingsAre("late", "answer");
    settingsAre("late", "");
    EXPECT_EQ(status("late")->disableRequestId(), 0u);
    EXPECT_EQ(state("prompt"), "running");
  }
  all_->cleanupRequestIdInc(1);
  EXPECT_EQ(status("prompt")->cleanupRequestId(), 1u);
  EXPECT_EQ(status("late")->cleanupRequestId(), 0u);
  settingsAre("late", "answer");
  EXPECT_EQ(status("late")->cleanupRequestId(), 1u);
}

}  // namespace
}  // namespace P4Runtime
