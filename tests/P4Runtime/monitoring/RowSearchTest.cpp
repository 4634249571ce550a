// Searches in the rows of a table, and where they end.
#include "P4Runtime/monitoring/RowSearch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "platform/orrery/Database.h"
#include "platform/vela/Json.h"
#include "tests/P4Runtime/support/AgentTest.h"
#include "tests/support/Waiting.h"

namespace P4Runtime {
namespace {

using namespace TestSupport;

class RowSearchTest : public AgentTest {
 protected:
  static constexpr int routes = 50;

  RowSearchTest() {
    for (int i = 0; i < routes; ++i) {
      const std::string address{10, 1, static_cast<char>(i), 0};
      const uint32_t length = 24;
      agent().program({.table = route4Table,
                       .key = bytes("0007") + address +
                              std::string(reinterpret_cast<const char*>(&length), sizeof length),
                       .action = setNexthop,
                       .data = bytes("00000001 020000000001 0a000001")});
    }
  }

  // Rows found, rows looked at, and why it ended.
  std::string found(const std::string& wanted, const SearchLimits& limits = {},
                    const std::string& table = "route4") {
    const Observed observed{*stateDatabase_, *agent().database, *agent().store, agent().tableInfo,
                            nullptr};
    const std::string text = rowsJson(observed, table, wanted, limits);
    const Vela::Json json = Vela::parseJson(text);
    const cJSON* rows = Vela::jsonArray(json.get(), "rows");
    if (!rows) return text;
    return std::to_string(cJSON_GetArraySize(rows)) + " of " +
           std::to_string(Vela::jsonNumber(json.get(), "looked").value_or(-1)) + " " +
           Vela::jsonString(json.get(), "end").value_or("");
  }

  const std::unique_ptr<Orrery::Database> stateDatabase_ = Orrery::embeddedDatabase(agent().loop);
};

TEST_F(RowSearchTest, EndsWithTheTableOrAtALimit) {
  using std::chrono::milliseconds;
  const struct {
    const char* what;
    const char* wanted;
    SearchLimits limits;
    const char* found;
  } cases[] = {
      {"all rows", "", {}, "50 of 50 all"},
      {"all rows in many turns", "", {.rowsOfTurn = 1}, "50 of 50 all"},
      {"a turn as long as the table", "", {.rowsOfTurn = routes}, "50 of 50 all"},
      {"one row", "10.1.42.", {.rowsOfTurn = 7}, "1 of 50 all"},
      {"whatever the letters", "SET_NEXTHOP", {.rowsOfTurn = 7}, "50 of 50 all"},
      {"none", "10.2.", {}, "0 of 50 all"},
      {"enough of them", "10.1.", {.matches = 5, .rowsOfTurn = 3}, "5 of 5 matches"},
      {"enough looked at", "10.2.", {.rows = 20, .rowsOfTurn = 6}, "0 of 20 rows"},
      {"no time", "10.2.", {.time = milliseconds(0), .rowsOfTurn = 6}, "0 of 6 time"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(found(c.wanted, c.limits), c.found);
  }
  EXPECT_EQ(found("", {}, "nowhere"), "{}");
}

// Both wait: the first for the lock, the second for the first.
TEST_F(RowSearchTest, OneRunsAtATime) {
  std::string ends[2];
  std::vector<std::thread> searching;
  {
    std::atomic<int> ended = 0;
    const Vela::ActivityLock lock;
    for (std::string& end : ends) {
      searching.emplace_back([&] {
        end = found("", {.time = std::chrono::milliseconds(1)});
        ++ended;
      });
    }
    EXPECT_TRUE(waitUntil([&] { return ended == 1; }));
  }
  for (std::thread& one : searching) one.join();
  EXPECT_THAT(ends, testing::UnorderedElementsAre(R"({"end":"busy"})", "50 of 50 all"));
}

}  // namespace
}  // namespace P4Runtime
