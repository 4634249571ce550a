// Small programs, one for each feature of parsers, headers and actions.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/p4/Playing.h"

namespace P4Test {
namespace {

using testing::ElementsAre;

const std::vector<TestField> byteHeader = {{"v", 8}};

// A stack `s` of up to three bytes, whose last one has its top bit set; a byte `h` behind it.
SmallProgram stackProgram(const std::string& actionCalls) {
  SmallProgram program;
  program.stack("s", {{"last", 1}, {"v", 7}}, 3);
  program.header("h", byteHeader);
  program.another("new", "h");
  program.state("start", list({call("extract", {object("stack", "s")})}),
                R"([{"type":"stack_field","value":["s","last"]}])",
                list({goOn("0x01", "behind"), otherwise("start")}));
  program.state("behind", list({extract("h")}));
  program.ingressAction(actionCalls);
  program.deparse({"new", "s[0]", "s[1]", "s[2]", "h"});
  return program;
}

TEST(FeatureTest, HeadersAndStacks) {
  const std::string stack = object("header_stack", "s");
  const auto element = [&](const std::string& index) {
    return op("dereference_header_stack", stack, index);
  };
  const auto access = [&](const std::string& index, int position) {
    return op("access_field", element(index), std::to_string(position));
  };
  const std::string h = field("h", "v");
  const struct {
    const char* what;
    Strings actions;
    const char* in;
    const char* out;
  } cases[] = {
      {"nothing changes", {}, "0182aaee", "0:0182aaee"},
      {"a full stack ends the parser",
       {assign(metadata("egress_spec"), metadata("parser_error"))},
       "010203ee",
       "3:010203ee"},
      {"too short a packet ends the parser",
       {assign(metadata("egress_spec"), metadata("parser_error"))},
       "0182",
       "1:0182"},
      {"push makes room in front",
       {call("push", {stack, hex(1)}), call("add_header", {object("header", "s[0]")})},
       "0182aa",
       "0:000182aa"},
      {"push beyond the size loses the last",
       {call("push", {stack, hex(2)})},
       "010283aaee",
       "0:01aaee"},
      {"pop takes the first", {call("pop", {stack, hex(1)})}, "010283aaee", "0:0283aaee"},
      {"pop of all", {call("pop", {stack, hex(9)})}, "010283aaee", "0:aaee"},
      {"the last element and the size",
       {assign(h, op("size_stack", "null", stack))},
       "0182aaee",
       "0:018202ee"},
      {"the index of the last",
       {assign(h, wrapped(op("last_stack_index", "null", stack)))},
       "0182aaee",
       "0:018201ee"},
      {"an element by number is read",
       {assign(h, wrapped(access(h, 1)))},
       "018201ee",
       "0:018202ee"},
      {"an element beyond the stack reads 0",
       {assign(h, wrapped(access(h, 1)))},
       "0182ffee",
       "0:018200ee"},
      {"an element by number is written",
       {assign(wrapped(access(h, 1)), hex(0x55))},
       "018200ee",
       "0:558200ee"},
      {"nothing is written beyond the stack",
       {assign(wrapped(access(h, 1)), hex(0x55))},
       "018207ee",
       "0:018207ee"},
      {"an element by number becomes invalid",
       {call("remove_header", {wrapped(element(h))})},
       "018200ee",
       "0:8200ee"},
      {"a removed header comes back empty",
       {call("remove_header", {object("header", "h")}),
        call("add_header", {object("header", "h")})},
       "81aaee",
       "0:8100ee"},
      {"a header takes another's place",
       {call("assign_header", {object("header", "new"), object("header", "h")})},
       "81aaee",
       "0:aa81aaee"},
      {"an invalid source makes invalid",
       {call("assign_header", {object("header", "h"), object("header", "new")})},
       "81aaee",
       "0:81ee"},
      {"equal headers",
       {assign(h, wrapped(op("b2d", "null",
                             op("==", object("header", "s[0]"), object("header", "s[1]")))))},
       "818182aaee",
       "0:810082aaee"},
      {"two invalid headers are unequal",
       {assign(h, wrapped(op("b2d", "null",
                             op("==", object("header", "s[2]"), object("header", "s[1]")))))},
       "81aaee",
       "0:8100ee"},
      {"length follows added headers only",
       {call("add_header", {object("header", "new")}), assign(h, metadata("packet_length"))},
       "81aaee",
       "0:008103ee"},
      {"jumps",
       {call("_jump_if_zero", {h, hex(2)}), assign(h, hex(9)), call("no_op", {})},
       "8100ee",
       "0:8100ee"},
      {"truncation", {call("truncate", {hex(2)})}, "0182aaee", "0:0182"},
      {"dropped", {call("mark_to_drop", {object("header", "standard_metadata")})}, "0182aaee", ""},
      {"old spelling of a drop", {call("drop", {})}, "0182aaee", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    P4::Engine engine(stackProgram(calls(c.actions)).json());
    EXPECT_EQ(play(engine, 1, c.in), *c.out ? Strings{c.out} : Strings{});
  }
}

TEST(FeatureTest, VarbitHeadersKeepTheirWidth) {
  SmallProgram program;
  program.header("len", byteHeader);
  program.header("v", {{"a", 4}, {"options", 0}, {"b", 12}});
  program.another("w", "v");
  program.state("start",
                list({extract("len"), call("extract_VL", {object("regular", "v"),
                                                          wrapped(wrapped(field("len", "v")))})}));
  program.ingressAction(
      calls({assign(metadata("egress_spec"), metadata("parser_error")),
             assign(field("v", "b"), hex(0x123)), call("add_header", {object("header", "w")}),
             call("assign_VL", {field("w", "options"), field("v", "options")})}));
  program.deparse({"len", "v", "w"});
  P4::Engine engine(program.json());
  EXPECT_THAT(play(engine, 1, "10fabcdeffee"), ElementsAre("0:10fabcd12"
                                                           "3"
                                                           "0abcd000"
                                                           "ee"));
  EXPECT_THAT(play(engine, 1, "00feff"), ElementsAre("0:00f123"
                                                     "0000"));
  EXPECT_THAT(play(engine, 1, "03feff"), ElementsAre("6:030000feff")) << "no multiple of 8 bits";
  EXPECT_THAT(play(engine, 1, "10feff"), ElementsAre("1:100000feff")) << "too short";
}

TEST(FeatureTest, ParsersLookAheadAndVerify) {
  const std::string ahead = R"({"type":"lookahead","value":[4,12]})";
  SmallProgram program;
  program.header("h", {{"v", 16}});
  program.state(
      "start",
      list({call("set", {metadata("egress_rid"), ahead}), call("advance", {hex(8)}), extract("h"),
            call("verify", {op("!=", field("h", "v"), hex(0xffff)), hex(77)})}),
      list({ahead}), list({goOn("0x0e00", "more", "0x0f00"), otherwise()}));
  program.state("more", list({extract("h")}));
  program.ingressAction(calls({assign(metadata("egress_spec"), metadata("parser_error")),
                               assign(field("h", "v"), metadata("egress_rid"))}));
  program.deparse({"h"});
  P4::Engine engine(program.json());
  EXPECT_THAT(play(engine, 1, "a1b2c3d4e5"), ElementsAre("0:01b2d4e5"));
  EXPECT_THAT(play(engine, 1, "a1b2c3fed4e5f6"), ElementsAre("0:01b2e5f6"))
      << "the mask matches: two headers are taken";
  EXPECT_THAT(play(engine, 1, "a1ffff"), ElementsAre("77:01ff"));
  EXPECT_THAT(play(engine, 1, "a1"), ElementsAre("1:a1")) << "lookahead beyond the end";
}

TEST(FeatureTest, ValueSetsGuideTheParser) {
  SmallProgram program;
  program.header("h", {{"a", 4}, {"b", 12}});
  program.header("g", byteHeader);
  program.section("parse_vsets", R"([{"name":"set","id":0,"compressed_bitwidth":16}])");
  program.state(
      "start", list({extract("h")}), list({field("h", "a"), field("h", "b")}),
      list({goOn("0x010001", ""),
            R"({"type":"parse_vset","value":"set","mask":"0x0f0fff","next_state":"more"})",
            otherwise()}));
  program.state("more", list({extract("g")}));
  program.ingressAction(calls({assign(field("g", "v"), hex(0))}));
  program.deparse({"h", "g"});
  P4::Engine engine(program.json());
  EXPECT_THAT(play(engine, 1, "7abc99"), ElementsAre("0:7abc99"));
  engine.tables().setValueSet(0, {"\x7a\xbc", std::string("\x10\x01", 2)});
  EXPECT_THAT(play(engine, 1, "7abc99"), ElementsAre("0:7abc99")) << "not yet committed";
  engine.tables().commit();
  EXPECT_THAT(play(engine, 1, "7abc99"), ElementsAre("0:7abc00"));
  EXPECT_THAT(play(engine, 1, "100199"), ElementsAre("0:100199"))
      << "the value in front of the set counts first";
}

TEST(FeatureTest, UnionsHaveOneMember) {
  SmallProgram program;
  program.header("one", byteHeader);
  program.header("two", {{"v", 16}});
  program.section("header_union_types",
                  R"([{"name":"u_t","id":0,"headers":[["one","one_t"],["two","two_t"]]}])");
  program.section("header_unions",
                  R"([{"name":"u","id":0,"union_type":"u_t","header_ids":[1,2]}])");
  program.state("start", list({extract("one")}));
  const std::string valid = op("valid_union", "null", object("header_union", "u"));
  program.ingressAction(calls(
      {call("add_header", {object("header", "two")}),
       assign(field("two", "v"), wrapped(op("+", field("one", "v"), op("b2d", "null", valid))))}));
  program.deparse({"one", "two"});
  P4::Engine engine(program.json());
  EXPECT_THAT(play(engine, 1, "41ee"), ElementsAre("0:0042ee"));
}

TEST(FeatureTest, SaturatingFieldsAndWideRegisters) {
  SmallProgram program;
  program.header("h", {{"n", 8}, {"wide", 96}});
  program.section("register_arrays", R"([{"name":"r","id":0,"size":4,"bitwidth":96}])");
  program.section("counter_arrays", R"([{"name":"c","id":0,"size":2}])");
  program.state("start", list({extract("h")}));
  const std::string cell = R"({"type":"register_array","value":"r"})";
  program.ingressAction(calls(
      {call("register_read", {field("h", "wide"), cell, field("h", "n")}),
       call("register_write",
            {cell, field("h", "n"), wrapped(op("+", field("h", "wide"), hex(0xffffffffffffffff)))}),
       call("count", {R"({"type":"counter_array","value":"c"})", field("h", "n")})}));
  program.deparse({"h"});
  std::string json = program.json();
  P4::Engine engine(json);
  EXPECT_THAT(play(engine, 1,
                   "01"
                   "000000000000000000000000"),
              ElementsAre("0:01"
                          "000000000000000000000000"));
  EXPECT_THAT(play(engine, 1,
                   "01"
                   "000000000000000000000000"),
              ElementsAre("0:01"
                          "00000000ffffffffffffffff"));
  EXPECT_THAT(play(engine, 1,
                   "01"
                   "000000000000000000000000"),
              ElementsAre("0:01"
                          "00000001fffffffffffffffe"));
  EXPECT_THAT(play(engine, 1,
                   "04"
                   "0000000000000000000000aa"),
              ElementsAre("0:04"
                          "0000000000000000000000aa"))
      << "beyond the array";
  EXPECT_EQ(engine.registerCell(0, 1), std::string("\0\0\0\2\xff\xff\xff\xff\xff\xff\xff\xfd", 12));
  EXPECT_EQ(engine.counter(0, 1), (P4::Counts{3, 39}));
}

}  // namespace
}  // namespace P4Test
