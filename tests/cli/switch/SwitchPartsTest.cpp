// Parts of `korvel switch` that processes show too rarely: rests, lines, and whose directory it is.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <optional>

#include "cli/switch/AgentConfiguration.h"
#include "cli/switch/Supervised.h"
#include "cli/switch/SwitchDirectory.h"
#include "cli/switch/SwitchLog.h"
#include "platform/vela/Json.h"
#include "tests/support/TempDir.h"

namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr milliseconds none(0);

TEST(RestartPace, GrowsToABoundUntilARunLasts) {
  RestartPace pace;
  milliseconds last = pace.rest(none);
  EXPECT_EQ(last, RestartPace::shortest);
  for (int i = 0; i < 20; ++i) {
    const milliseconds next = pace.rest(none);
    EXPECT_TRUE(next > last || next == RestartPace::longest) << i;
    last = next;
  }
  EXPECT_EQ(last, RestartPace::longest);
  EXPECT_EQ(pace.rest(RestartPace::whileUp - milliseconds(1)), RestartPace::longest);
  EXPECT_EQ(pace.rest(RestartPace::whileUp), RestartPace::shortest);
}

TEST(LineCutter, GivesWholeLinesAndTheRestInTheEnd) {
  std::vector<std::string> lines;
  const auto take = [&](const std::string& line) { lines.push_back(line); };
  LineCutter cutter;
  for (const char* piece : {"one\ntw", "o", "\n\nthr"}) cutter.append(piece, take);
  EXPECT_THAT(lines, ElementsAre("one", "two", ""));
  cutter.end(take);
  cutter.end(take);
  EXPECT_THAT(lines, ElementsAre("one", "two", "", "thr"));
  cutter.append(std::string(40000, 'x'), take);
  EXPECT_EQ(lines.size(), 6u) << "memory is bounded";
}

TEST(SwitchDirectory, IsHeldByOneSwitchAndBegunEmptyOnlyIfASwitchMadeIt) {
  const TestSupport::TempDir directory;
  const std::string path = directory.file("state");
  const auto held = [&](bool fresh) { return SwitchDirectory(path, fresh, none); };
  {
    const SwitchDirectory first = held(false);
    EXPECT_FALSE(first.isTakenUp());
    EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms::owner_all);
    try {
      held(false);
      ADD_FAILURE() << "two hold it";
    } catch (const SwitchDirectoryError& e) {
      EXPECT_THAT(e.what(), HasSubstr("another switch, pid " + std::to_string(getpid())));
    }
    std::ofstream(first.file("data")) << "tables";
  }
  EXPECT_TRUE(held(false).isTakenUp());
  EXPECT_TRUE(std::filesystem::exists(path + "/data"));
  EXPECT_FALSE(held(true).isTakenUp());
  EXPECT_FALSE(std::filesystem::exists(path + "/data"));
  held(false).remove();
  EXPECT_FALSE(std::filesystem::exists(path));

  const std::string foreign = directory.file("home");
  std::filesystem::create_directory(foreign);
  std::ofstream(foreign + "/letter") << "dear";
  EXPECT_THROW(SwitchDirectory(foreign, true, none), SwitchDirectoryError);
  EXPECT_TRUE(std::filesystem::exists(foreign + "/letter"));
}

TEST(AgentConfiguration, SaysWhatTheOptionsSay) {
  SwitchOptions options;
  options.deviceId = 7;
  options.server = {"[::1]:65535", "::1", 65535};
  const Vela::Json json =
      Vela::parseJson(agentConfiguration(options, "/a \"b\"", {{0, "veth0"}, {9, "veth9"}}));
  ASSERT_TRUE(json);
  const auto text = [&](const char* path, const char* attribute) {
    return Vela::jsonString(Vela::jsonObject(json.get(), path), attribute).value_or("");
  };
  const auto* system = Vela::jsonObject(json.get(), "p4runtime/config/system");
  EXPECT_EQ(Vela::jsonNumber(system, "deviceId"), 7u);
  EXPECT_EQ(Vela::jsonNumber(system, "grpcServerPort"), 65535u);
  EXPECT_EQ(text("p4runtime/config/system", "grpcServerAddress"), "::1");
  EXPECT_EQ(text("p4runtime/config/agent", "p4InfoJsonPath"), "/a \"b\"/p4info.json");
  EXPECT_LE(text("p4runtime/config/agent", "cpuDevice").size(), 15u);
  EXPECT_EQ(text("p4runtime/config/port-mapping/0", "intf"), "veth0");
  EXPECT_EQ(text("p4runtime/config/port-mapping/9", "intf"), "veth9");
}

}  // namespace
