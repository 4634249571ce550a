// A packet's way in words.
#include "p4/TraceText.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/p4/Playing.h"

namespace P4Test {
namespace {

using testing::ElementsAre;

std::string keyOf(const std::vector<std::pair<const char*, const char*>>& fields) {
  Strings elements;
  for (const auto& [name, kind] : fields) {
    elements.push_back(std::string(R"({"match_type":")") + kind + R"(","name":"h.)" + name +
                       R"(","target":["h",")" + name + R"("],"mask":null})");
  }
  return list(elements);
}

std::string tableText(const std::string& name, const char* kind, const std::string& key,
                      size_t action, const std::string& next) {
  const std::string node = next.empty() ? "null" : "\"" + next + "\"";
  return R"({"name":")" + name + R"(","id":)" + std::to_string(name.size()) + R"(,"match_type":")" +
         kind + R"(","type":"simple","max_size":16,"key":)" + key + R"(,"action_ids":[)" +
         std::to_string(action) + R"(],"actions":["mark"],"base_default_next":)" + node +
         R"(,"next_tables":{"mark":)" + node + "}}";
}

// Fields that are no whole bytes, and one of two words.
TEST(TraceTest, TablesTellKeyEntryAndAction) {
  SmallProgram program;
  program.header("h", {{"a", 12}, {"b", 70}, {"c", 14}});
  program.state("start", list({extract("h")}));
  program.ingressAction("", "lpm");
  const size_t mark = program.action("mark", R"({"name":"port","bitwidth":9})", "");
  program.table(tableText("lpm", "lpm", keyOf({{"b", "lpm"}, {"a", "exact"}}), mark, "some"));
  program.table(tableText("some", "ternary",
                          keyOf({{"a", "ternary"}, {"b", "ternary"}, {"c", "exact"}}), mark,
                          "range"));
  program.table(tableText("range", "range", keyOf({{"c", "range"}, {"b", "lpm"}}), mark, "empty"));
  program.table(tableText("empty", "exact", keyOf({{"c", "exact"}}), mark, ""));
  program.deparse({"h"});
  P4::Engine engine(program.json());
  const auto bytes = [](const char* hex) { return bytesOf(hex); };
  const auto insert = [&](const char* table, const std::vector<P4::MatchElement>& match,
                          uint32_t priority) {
    const uint32_t position = *P4::tableNamed(engine.program(), table);
    const P4::ActionSpec action{*P4::actionNamed(engine.program(), position, "mark"), {"\x07"}};
    engine.tables().insert({.table = position, .match = match, .priority = priority}, action);
  };
  insert("lpm", {{bytes("2aaaaaaaaaaaaa8000"), "", 55}, {bytes("0123")}}, 0);
  insert("some", {{bytes("0120"), bytes("0ff0")}, {"", ""}, {bytes("1555")}}, 5);
  insert("range", {{bytes("1000"), bytes("2000")}, {bytes("200000000000000000"), "", 1}}, 5);
  engine.tables().commit();

  P4::TraceText trace(engine.program());
  engine.traceIs(&trace);
  // a 0x123, b 0x2aaaaaaaaaaaaaaaaa, c 0x1555.
  play(engine, 1, "123aaaaaaaaaaaaaaaaa9555");
  EXPECT_THAT(
      trace.lines(),
      ElementsAre(
          "parser state start", "ingress 1", "table tbl_in: action in()",
          "table lpm: h.b=0x2aaaaaaaaaaaaaaaaa h.a=0x0123: entry 0 (0x2aaaaaaaaaaaaa8000/55 "
          "0x0123), action mark(port=0x0007)",
          "table some: h.a=0x0123 h.b=0x2aaaaaaaaaaaaaaaaa h.c=0x1555: entry 0 "
          "(0x0120&&&0x0ff0 * 0x1555), action mark(port=0x0007)",
          "table range: h.c=0x1555 h.b=0x2aaaaaaaaaaaaaaaaa: entry 0 (0x1000..0x2000 "
          "0x200000000000000000&&&0x200000000000000000), action mark(port=0x0007)",
          "table empty: h.c=0x1555: no entry, no action", "egress 0", "sent to port 0"));
}

}  // namespace
}  // namespace P4Test
