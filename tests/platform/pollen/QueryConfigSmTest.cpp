// Queries: SQLite's verdict on them, and how their status follows.
#include "platform/pollen/QueryConfigSm.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/platform/pollen/QueryFixture.h"

namespace Pollen {
namespace {

using ::testing::HasSubstr;
using TestSupport::Cell;

class QueryConfigSmTest : public testing::Test {
 protected:
  QueryConfigSmTest() {
    tables.typeIs("Route",
                  "key vrf : U16; key dst : IpGenPrefix; action { ing.fwd 7 { port : U32; } "
                  "drop 8 { none : Void; } } meter; counter;");
    tables.typeIs("Port", "key port : U32; speed : U64; members : U32[];");
    tables.typeIs("Out", "key vrf : U16; speed : U64;");
    tables.tableIs("ipv4_route", "Route");
    tables.tableIs("port_table", "Port");
  }

  Vela::Ptr<QueryConfig> query(const std::string& path, const std::string& text,
                               const std::string& type = "Out") {
    tables.queryIs({path,
                    type,
                    text,
                    {{"routes", "ipv4_route"}, {"ports", "port_table"}},
                    {{"minimum", "10"}}});
    return tables.configs->queryConfig(path);
  }
  // "defined active reason"
  std::string outcome(const std::string& path) {
    const auto status = tables.statuses->queryStatus(path);
    if (!status) return "none";
    return std::string(status->defined() ? "defined " : "") + (status->active() ? "active " : "") +
           status->reason();
  }
  void turn() { tables.turn(); }

  const Vela::ActivityLock lock;
  TestSupport::TempDir directory;
  TestSupport::Tables tables{directory.path()};
};

TEST_F(QueryConfigSmTest, ValidQueriesBecomeDefinedAndActive) {
  const auto config =
      query("out/speeds",
            "SELECT vrf, speed FROM routes JOIN ports ON ing_fwd_port = ports.port "
            "WHERE speed > :minimum AND meter_cir >= 0 AND counter_bytes >= 0; -- x");
  EXPECT_EQ(outcome("out/speeds"), "none");
  turn();
  EXPECT_EQ(outcome("out/speeds"), "defined active ");
  tables.configs->activeQueryConfigDelAll();
  turn();
  EXPECT_EQ(outcome("out/speeds"), "defined ");
  tables.configs->queryConfigDelAll();
  turn();
  EXPECT_EQ(outcome("out/speeds"), "none");
}

TEST_F(QueryConfigSmTest, InvalidQueriesHaveAReason) {
  const struct {
    const char* text;
    const char* reason;
  } cases[] = {
      {"SELECT vrf, speed FROM nowhere", "no such table: nowhere"},
      {"SELECT vrf, velocity FROM routes, ports", "no such column: velocity"},
      {"SELEC vrf", "syntax error"},
      {"SELECT vrf FROM routes", "gives 1 columns, but type Out has 2"},
      {"SELECT speed, vrf FROM routes, ports", "column 1 of the query is speed, but"},
      {"SELECT vrf, speed FROM routes, ports WHERE vrf = :other", ":other has no value"},
      {"SELECT vrf, speed FROM routes, ports WHERE vrf = ?1", "parameters are named"},
      {"DELETE FROM routes", "only one SELECT"},
      {"DROP TABLE routes", "only one SELECT"},
      {"PRAGMA journal_mode", "only one SELECT"},
      {"ATTACH DATABASE '/tmp/x' AS x", "only one SELECT"},
      {"EXPLAIN SELECT vrf, speed FROM routes, ports", "only one SELECT"},
      {"SELECT vrf, speed FROM routes, ports; SELECT 1", "only one SELECT"},
      {"SELECT vrf, speed FROM routes, ports; nonsense", "only one SELECT"},
      {"SELECT type AS vrf, name AS speed FROM sqlite_master", "prohibited"},
      {"SELECT load_extension('x') AS vrf, 1 AS speed", "load_extension"},
      {"SELECT vrf, random() AS speed FROM routes", "not authorized to use function: random"},
      {"SELECT vrf, rowid AS speed FROM routes", "prohibited"},
      {"-- nothing", "the query is empty"},
  };
  int number = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    const std::string path = "out/q" + std::to_string(number++);
    query(path, c.text);
    turn();
    EXPECT_THAT(outcome(path), HasSubstr(c.reason));
    EXPECT_FALSE(tables.status(path).defined());
    EXPECT_FALSE(tables.status(path).active());
    EXPECT_FALSE(tables.interfaces.contains(path));
  }
}

TEST_F(QueryConfigSmTest, TablesTypesAndOutputsThatAreMissingAreNamed) {
  const char* text = "SELECT vrf, speed FROM routes, ports";
  query("out/type", text, "Nowhere");
  query("out/input", text)->inputTableIs("more", "absent_table");
  query("out/name", text)->inputTableIs("", "port_table");
  query("ipv4_route", text);
  query("out/self", text)->inputTableIs("more", "out/self");
  query("out/a", text)->inputTableIs("more", "out/b");
  query("out/b", text)->inputTableIs("more", "out/a");
  turn();
  EXPECT_EQ(outcome("out/type"), "output type Nowhere is not known");
  EXPECT_EQ(outcome("out/input"), "input table absent_table does not exist");
  EXPECT_THAT(outcome("ipv4_route"), HasSubstr("is a table of the pipeline"));
  EXPECT_EQ(outcome("out/self"), "the query reads its own output");
  EXPECT_EQ(outcome("out/a"), "the query reads its own output by way of out/b");
}

TEST_F(QueryConfigSmTest, AChangeIsCheckedAgain) {
  const auto config = query("out/q", "SELECT nonsense");
  turn();
  EXPECT_THAT(outcome("out/q"), HasSubstr("nonsense"));
  config->queryTextIs("SELECT vrf, speed FROM routes, ports");
  turn();
  EXPECT_EQ(outcome("out/q"), "defined active ");
  tables.configs->queryConfigIs("out/q", "Out");  // a new one without a text yet
  turn();
  EXPECT_EQ(outcome("out/q"), "");
}

TEST_F(QueryConfigSmTest, ConflictsAndBadRowsAreNamedUntilTheyAreGone) {
  query("out", "SELECT speed AS vrf, port AS speed FROM ports");
  turn();
  const auto portIs = [&](int64_t port, int64_t speed, bool deleted = false) {
    {
      const TestSupport::Unlocked unlocked;
      const Vela::ActivityLock scope;
      tables.write("port_table", {port, speed, std::string()}, deleted);
    }
    return tables.status("out").trouble();
  };
  EXPECT_EQ(portIs(1, 5), "");
  EXPECT_EQ(portIs(2, 5),
            "1 keys have several rows, such as out vrf=0x0005: speed=0x0000000000000001 (this one "
            "stands) and speed=0x0000000000000002");
  // What a full state directory takes back is no conflict, nor the end of one.
  const std::string conflict = tables.status("out").trouble();
  tables.store.failing = true;
  EXPECT_EQ(portIs(1, 5, true), conflict);
  EXPECT_EQ(portIs(7, 6), conflict);
  EXPECT_EQ(portIs(8, 5), conflict);
  tables.store.failing = false;
  EXPECT_EQ(portIs(9, 6), conflict) << "nothing is left of the row that could not be stored";
  EXPECT_EQ(portIs(9, 6, true), conflict);
  EXPECT_EQ(portIs(1, 5, true), "");
  EXPECT_EQ(tables.rows("out").begin()->second[0], 2);
  EXPECT_EQ(portIs(3, 70000),
            "1 results are no rows of the output type, such as row vrf=70000: column vrf is 70000, "
            "which does not fit 16 bits without sign");
  EXPECT_EQ(tables.status("out").rows(), 1u);
  EXPECT_EQ(portIs(3, 7), "");
  EXPECT_THAT(tables.sm->statusText(), HasSubstr("out: active, incremental: one input, 2 rows"));
}

TEST_F(QueryConfigSmTest, RowsThatSqliteCannotEvaluateStopTheQueryUntilTheyAreGone) {
  const char* const text = "SELECT port AS vrf, length(zeroblob(speed)) AS speed FROM ports";
  query("out", text);
  turn();
  const auto portIs = [&](int64_t port, int64_t speed) {
    {
      const TestSupport::Unlocked unlocked;
      const Vela::ActivityLock scope;
      tables.write("port_table", {port, speed, std::string()});
    }
    turn();
    turn();
  };
  portIs(1, 5);
  EXPECT_EQ(tables.rows("out").size(), 1u);
  portIs(2, int64_t{1} << 40);
  EXPECT_EQ(outcome("out"), "defined string or blob too big");
  EXPECT_EQ(tables.rows("out").size(), 0u);
  query("out", text);  // as after a restart, and with a reader of its output
  query("reader", "SELECT vrf, speed FROM out")->inputTableIs("out", "out");
  turn();
  EXPECT_EQ(outcome("out"), "defined string or blob too big");
  EXPECT_EQ(outcome("reader"),
            "defined input table out is the output of a query that is not active");
  portIs(2, 3);
  turn();
  EXPECT_EQ(outcome("reader"), "defined active ");
  EXPECT_EQ(outcome("out"), "defined active ");
  EXPECT_EQ(tables.rows("out").size(), 2u);
  query("out/wild",
        "WITH RECURSIVE n(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM n) "
        "SELECT count(*) AS vrf, 1 AS speed FROM n WHERE x < 0");
  turn();
  EXPECT_THAT(outcome("out/wild"), HasSubstr("the query takes too long"));
}

TEST_F(QueryConfigSmTest, OneShotsStayAsTheyWere) {
  tables.write("port_table", {int64_t{1}, int64_t{10}, std::string()});
  const std::string text = "SELECT port AS vrf, speed FROM ports";
  tables.queryIs({"out", "Out", text, {{"ports", "port_table"}}, {}, true});
  turn();
  EXPECT_THAT(tables.status("out").text(), HasSubstr("out: active, one-shot, 1 rows"));
  {
    const TestSupport::Unlocked unlocked;
    const Vela::ActivityLock scope;
    tables.write("port_table", {int64_t{2}, int64_t{10}, std::string()});
  }
  EXPECT_EQ(tables.rows("out").size(), 1u);
}

TEST_F(QueryConfigSmTest, AQueryEndsWithItsTables) {
  query("out", "SELECT port AS vrf, speed FROM ports");
  tables.queryIs({"next", "Out", "SELECT * FROM o", {{"o", "out"}}});
  tables.settle();
  EXPECT_EQ(outcome("next"), "defined active ");
  tables.configs->activeQueryConfigDel("out");
  turn();
  turn();
  EXPECT_EQ(outcome("next"), "defined input table out is the output of a query that is not active");
  tables.configs->activeQueryConfigIs(tables.configs->queryConfig("out"));
  tables.settle();
  EXPECT_EQ(outcome("next"), "defined active ");
  tables.tableIs("port_table", "Port");
  turn();
  turn();
  EXPECT_EQ(outcome("out"), "input table port_table is gone");
}

}  // namespace
}  // namespace Pollen
