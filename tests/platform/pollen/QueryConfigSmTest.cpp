// Queries: what SQLite says of them, and how their status follows.
#include "platform/pollen/QueryConfigSm.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <stdexcept>

#include "platform/vela/ActivityLock.h"

namespace Pollen {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

class QueryConfigSmTest : public testing::Test {
 protected:
  QueryConfigSmTest() {
    addType("Route",
            "key vrf : U16; key dst : IpGenPrefix; action { ing.fwd 7 { port : U32; } "
            "drop 8 { none : Void; } } meter; counter;");
    addType("Port", "key port : U32; speed : U64; members : U32[];");
    addType("Out", "key vrf : U16; speed : U64;");
    QueryTables tables;
    tables.typeOf = [this](const std::string& name) {
      const auto found = tableTypes.find(name);
      return found == tableTypes.end() ? nullptr : Lattice::TheTypeRegistry().type(found->second);
    };
    tables.outputTableIs = [this](const std::string& path, const std::string& type) {
      if (path == "out/broken") throw std::runtime_error("no room");
      outputs.push_back(path + " " + type);
    };
    sm = Vela::make<QueryConfigSm>(loop, configs, statuses, tables);
  }
  ~QueryConfigSmTest() override {
    for (const char* name : {"Route", "Port", "Out"}) Lattice::TheTypeRegistry().typeDel(name);
  }

  static void addType(const char* name, const char* definition) {
    Lattice::TheTypeRegistry().typeIs(Lattice::TableType::compile(name, definition));
  }
  void turn() {
    loop.post([this] { loop.stop(); });
    loop.run();
  }
  Vela::Ptr<QueryConfig> query(const std::string& path, const std::string& text,
                               const std::string& type = "Out") {
    const auto config = configs->queryConfigIs(path, type);
    config->queryTextIs(text);
    config->inputTableIs("routes", "ipv4_route");
    config->inputTableIs("ports", "port_table");
    config->parameterIs("minimum", "10");
    configs->activeQueryConfigIs(config);
    return config;
  }
  // "defined active reason"
  std::string outcome(const std::string& path) {
    const auto status = statuses->queryStatus(path);
    if (!status) return "none";
    return std::string(status->defined() ? "defined " : "") + (status->active() ? "active " : "") +
           status->reason();
  }

  const Vela::ActivityLock lock;
  Vela::ReactorLoop loop;
  std::map<std::string, std::string> tableTypes{{"ipv4_route", "Route"}, {"port_table", "Port"}};
  std::vector<std::string> outputs;
  Vela::Ptr<QueryConfigDir> configs = Vela::make<QueryConfigDir>("config");
  Vela::Ptr<QueryStatusDir> statuses = Vela::make<QueryStatusDir>("status");
  Vela::Ptr<QueryConfigSm> sm;
};

TEST_F(QueryConfigSmTest, ValidQueriesBecomeDefinedAndActive) {
  const auto config =
      query("out/speeds",
            "SELECT vrf, speed FROM routes JOIN ports ON ing_fwd_port = ports.port "
            "WHERE speed > :minimum AND meter_cir >= 0 AND counter_bytes >= 0; -- x");
  EXPECT_EQ(outcome("out/speeds"), "none");
  turn();
  EXPECT_EQ(outcome("out/speeds"), "defined active ");
  EXPECT_THAT(outputs, ElementsAre("out/speeds Out"));
  configs->activeQueryConfigDelAll();
  turn();
  EXPECT_EQ(outcome("out/speeds"), "defined ");
  configs->queryConfigDelAll();
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
      {"-- nothing", "the query is empty"},
  };
  int number = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    const std::string path = "out/q" + std::to_string(number++);
    query(path, c.text);
    turn();
    EXPECT_THAT(outcome(path), HasSubstr(c.reason));
    EXPECT_FALSE(statuses->queryStatus(path)->defined());
    EXPECT_FALSE(statuses->queryStatus(path)->active());
  }
  EXPECT_THAT(outputs, ElementsAre());
}

TEST_F(QueryConfigSmTest, TablesTypesAndOutputsThatAreMissingAreNamed) {
  const char* text = "SELECT vrf, speed FROM routes, ports";
  query("out/type", text, "Nowhere");
  query("out/input", text)->inputTableIs("more", "absent_table");
  query("out/name", text)->inputTableIs("", "port_table");
  query("out/broken", text);
  turn();
  EXPECT_EQ(outcome("out/type"), "output type Nowhere is not known");
  EXPECT_EQ(outcome("out/input"), "input table absent_table does not exist");
  EXPECT_EQ(outcome("out/broken"), "output table: no room");
}

TEST_F(QueryConfigSmTest, AChangeIsCheckedAgain) {
  const auto config = query("out/q", "SELECT nonsense");
  turn();
  EXPECT_THAT(outcome("out/q"), HasSubstr("nonsense"));
  config->queryTextIs("SELECT vrf, speed FROM routes, ports");
  turn();
  EXPECT_EQ(outcome("out/q"), "defined active ");
  configs->queryConfigIs("out/q", "Out");  // a new one without a text yet
  turn();
  EXPECT_EQ(outcome("out/q"), "");
}

}  // namespace
}  // namespace Pollen
