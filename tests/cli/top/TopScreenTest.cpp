// The picture of `korvel top`, from statuses as the agent shows them, whole and in pieces.
#include "cli/top/TopScreen.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/vela/Json.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

constexpr const char* before =
    R"({"seconds": 100, "agent": {"serverReady": true, "forwardingAgents": 1},
  "updates": {"OK": 1000}, "packets": {"out": 10, "outDroppedFailed": 1},
  "stageEnds": [1000, 2000, 4000000], "stages": {"whole": [5, 0, 0, 0], "hardware": [0, 0, 0, 0]}})";
constexpr const char* now =
    R"({"seconds": 102, "agent": {"serverReady": true, "forwardingAgents": 1, "deviceId": 7,
    "serverAddress": "127.0.0.1:9559"},
  "updates": {"OK": 2469134, "NOT_FOUND": 4}, "packets": {"out": 30, "outDroppedFailed": 5},
  "forwardingAgents": [{"name": "chip", "pid": 12, "behind": 1500}],
  "tables": [{"name": "small", "entries": 1, "size": 0}, {"name": "full", "entries": 1000, "size": 1024}],
  "stageEnds": [1000, 2000, 4000000],
  "stages": {"whole": [5, 100, 0, 0], "hardware": [0, 0, 0, 0]}})";

std::vector<std::string> lines(const char* first, const char* second, ScreenSize size = {}) {
  return topLines(*Vela::parseJson(first), *Vela::parseJson(second), size);
}

TEST(TopScreen, ShowsRatesTimesAndTheFullestTables) {
  EXPECT_THAT(lines(before, now),
              ElementsAre("korvel serving  device 7  127.0.0.1:9559",
                          "updates/s    1,234,069   failed/s          2",
                          "Writes    median      2 us   99% within      2 us   hardware         -",
                          "packets/s to controllers        0   out       10   dropped        2",
                          "forwarding agent chip (pid 12)  1,500 changes behind", "",
                          "TABLE      ENTRIES         SIZE   USE",
                          "full         1,000        1,024   98%", "small            1"));
}

TEST(TopScreen, StaysWithinTheScreenAndTakesWhateverComes) {
  const auto few = lines(before, now, {.lines = 3, .columns = 10});
  EXPECT_THAT(few, SizeIs(3));
  EXPECT_THAT(few, Contains("korvel ser"));
  for (const char* odd : {"{}", "[]", R"({"agent": 5, "tables": {"a": 1}, "stages": [1]})",
                          R"({"tables": [null, 7, {"size": "x"}], "updates": {"OK": "many"}})"}) {
    EXPECT_THAT(lines(odd, odd), Contains(HasSubstr("waiting for a pipeline"))) << odd;
    EXPECT_FALSE(lines(now, odd).empty());
  }
  EXPECT_THAT(lines(now, R"({"system": {"critical": true, "criticalReason": "late"}})"),
              Contains("  why: late"));
}

}  // namespace
