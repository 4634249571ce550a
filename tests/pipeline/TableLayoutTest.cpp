// Table types for the output of P4 compilers, and refusals by name.
#include "pipeline/TableLayout.h"

#include <cstring>

#include "PI/frontends/proto/translation_tables.h"
#include "pipeline/P4InfoLookup.h"
#include "pipeline/ProfileCheck.h"
#include "platform/lattice/types/TableType.h"
#include "tests/pipeline/Scratch.h"

namespace Pipeline {
namespace {

using p4::config::v1::P4Info;

struct Made {
  PipelineLayout layout;
  std::string findings;
};

Made madeOf(const P4Info& p4Info, const Extensions& extensions = {}) {
  Findings findings;
  const P4InfoLookup index(p4Info);
  PipelineLayout layout = pipelineLayout(index, extensions, &findings);
  for (const TableLayout& table : layout.tables) {
    EXPECT_NO_THROW(Lattice::TableType::compile(table.typeName, definitionText(table)))
        << definitionText(table);
  }
  return {std::move(layout), textOf(findings)};
}

// A table "t" with the one match field and an action of the one parameter, as P4Info text.
P4Info oneFieldTable(const std::string& field, const std::string& param = "") {
  return p4InfoOf(R"(tables { preamble { id: 33554433 name: "c.t" alias: "t" }
    action_refs { id: 16777217 } match_fields { id: 1 )" +
                  field + R"( } } actions { preamble { id: 16777217 name: "c.a" alias: "a" } )" +
                  (param.empty() ? "" : "params { id: 1 " + param + " }") + " }");
}

TEST(Definitions, HoldEveryMatchKindAndWidth) {
  const std::string prioritized = "key priority : U32 priority;\n";
  const struct {
    const char* field;
    std::string key;
  } cases[] = {
      {R"(name: "f" bitwidth: 1 match_type: EXACT)", "key f : U8;\n"},
      {R"(name: "f" bitwidth: 8 match_type: OPTIONAL)", "key f : U8;\n"},
      {R"(name: "f" bitwidth: 9 match_type: EXACT)", "key f : U16;\n"},
      {R"(name: "f" bitwidth: 25 match_type: EXACT)", "key f : U32;\n"},
      {R"(name: "f" bitwidth: 32 match_type: EXACT)", "key f : U32;\n"},
      {R"(name: "h.ipv4.src" bitwidth: 32 match_type: EXACT)", "key h_ipv4_src : IpAddr;\n"},
      {R"(name: "dst_ip" bitwidth: 32 match_type: EXACT)", "key dst_ip : IpAddr;\n"},
      {R"(name: "skip" bitwidth: 32 match_type: EXACT)", "key skip : U32;\n"},
      {R"~(name: "f" bitwidth: 32 match_type: EXACT annotations: "@format(IPV4_ADDRESS)")~",
       "key f : IpAddr;\n"},
      {R"(name: "f" bitwidth: 32 match_type: EXACT structured_annotations { name: "format"
          expression_list { expressions { string_value: "IPV4_ADDRESS" } } })",
       "key f : IpAddr;\n"},
      {R"(name: "f" bitwidth: 33 match_type: EXACT)", "key f : Bytes<5>;\n"},
      {R"(name: "f" bitwidth: 48 match_type: EXACT)", "key f : EthAddr;\n"},
      {R"(name: "f" bitwidth: 128 match_type: EXACT)", "key f : Ip6Addr;\n"},
      {R"(name: "f" bitwidth: 255 match_type: EXACT)", "key f : Bytes<32>;\n"},
      {R"(name: "f" bitwidth: 32 match_type: LPM)", "key f : IpGenPrefix;\n"},
      {R"(name: "f" bitwidth: 128 match_type: LPM)", "key f : IpGenPrefix;\n"},
      {R"(name: "f" bitwidth: 16 match_type: TERNARY)",
       "key f : U16 value;\nkey f_mask : U16 mask;\n" + prioritized},
      {R"(name: "f" bitwidth: 64 match_type: TERNARY)",
       "key f : Bytes<8> value;\nkey f_mask : Bytes<8> mask;\n" + prioritized},
      {R"(name: "f" bitwidth: 16 match_type: RANGE)", "key f : U16 range;\n" + prioritized},
      {R"(name: "port" bitwidth: 16 match_type: EXACT type_name { name: "port_id_t" })",
       "key port : U16;\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.field);
    const Made made = madeOf(oneFieldTable(c.field));
    EXPECT_EQ(made.findings, "");
    ASSERT_EQ(made.layout.tables.size(), 1u);
    EXPECT_EQ(definitionText(made.layout.tables[0]),
              c.key + "action {\n  a 16777217 { none : Void; }\n}\n");
  }
}

TEST(Definitions, HoldFieldsOfAnyWidthWhereAskedTo) {
  const std::string prioritized = "key priority : U32 priority;\n";
  const struct {
    const char* field;
    std::string key;
  } cases[] = {
      {R"(name: "f" bitwidth: 16 match_type: EXACT)", "key f : U16;\n"},
      {R"(name: "f" bitwidth: 17 match_type: EXACT)", "key f : Bits<17>;\n"},
      {R"(name: "f" bitwidth: 255 match_type: EXACT)", "key f : Bytes<32>;\n"},
      {R"(name: "f" bitwidth: 333 match_type: EXACT)", "key f : Bits<333>;\n"},
      {R"(name: "f" bitwidth: 24 match_type: TERNARY)",
       "key f : Bits<24> value;\nkey f_mask : Bits<24> mask;\n" + prioritized},
      {R"(name: "f" bitwidth: 32 match_type: LPM)", "key f : IpGenPrefix;\n"},
      {R"(name: "f" bitwidth: 9 match_type: LPM)",
       "key f : Bits<9> prefix;\nkey f_len : U32 length;\n"},
      {R"(name: "f" bitwidth: 16 match_type: RANGE)",
       "key f : U16 low;\nkey f_high : U16 high;\n" + prioritized},
      {R"(name: "f" bitwidth: 48 match_type: OPTIONAL)",
       "key f : EthAddr optional;\nkey f_present : U8 present;\n" + prioritized},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.field);
    const Made made = madeOf(oneFieldTable(c.field, R"(name: "p" bitwidth: 24)"), {.fields = true});
    EXPECT_EQ(made.findings, "");
    ASSERT_EQ(made.layout.tables.size(), 1u);
    EXPECT_EQ(definitionText(made.layout.tables[0]),
              c.key + "action {\n  a 16777217 { p : Bits<24>; }\n}\n");
  }
}

// Only what a program needs is asked for, so that agents without the ability run the others.
TEST(Extensions, AreThoseThatTheProgramNeeds) {
  const std::string constant =
      "} const_default_action_id: 16777217 match_fields { id: 2 name: \"g\" "
      "bitwidth: 8 match_type: EXACT ";
  const struct {
    std::string field;
    std::string param;
    Extensions needed;
  } cases[] = {
      {R"(name: "f" bitwidth: 8 match_type: EXACT )" + constant, "", {}},
      {R"(name: "f" bitwidth: 8 match_type: EXACT)", "", {.defaultActions = true}},
      {R"(name: "f" bitwidth: 20 match_type: EXACT )" + constant, "", {.fields = true}},
      {R"(name: "f" bitwidth: 8 match_type: RANGE )" + constant, "", {.fields = true}},
      {R"(name: "f" bitwidth: 8 match_type: OPTIONAL )" + constant, "", {.fields = true}},
      {R"(name: "f" bitwidth: 48 match_type: LPM )" + constant, "", {.fields = true}},
      {R"(name: "f" bitwidth: 8 match_type: EXACT )" + constant,
       R"(name: "p" bitwidth: 300)",
       {.fields = true}},
      {R"(name: "f" match_type: EXACT )" + constant, "", {}},  // no extension helps
      // The id of another table's default entry.
      {R"(name: "f" bitwidth: 8 match_type: EXACT } } tables { preamble { id: 2181038081 name: "u" }
          action_refs { id: 16777217 } match_fields { id: 1 name: "f" bitwidth: 8
          match_type: EXACT)",
       "",
       {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.field + c.param);
    Extensions needed = c.needed;
    needed.entities = true;  // any program has groups and sessions
    EXPECT_EQ(extensionsFor(oneFieldTable(c.field, c.param)), needed);
  }
}

// Numbers stand for them, whatever the name of the field says.
TEST(Definitions, NameTheTypesOfStrings) {
  P4Info p4Info = oneFieldTable(R"(name: "dst_ip" match_type: OPTIONAL type_name { name: "s" })",
                                R"(name: "smac" type_name { name: "s" })");
  auto& types = *p4Info.mutable_type_info()->mutable_new_types();
  for (const char* type : {"s", "unused"}) {
    types[type].mutable_translated_type()->mutable_sdn_string();
  }
  const Extensions extensions = extensionsFor(p4Info);
  EXPECT_TRUE(extensions.strings && extensions.fields);
  const auto tables = pi::fe::proto::translation_tables(p4Info);
  ASSERT_EQ(tables.size(), 1u);

  const Made made = madeOf(withAdditions(p4Info, extensions), extensions);
  EXPECT_EQ(made.findings, "");
  const TableLayout* table = made.layout.table({TableKind::match, 33554433});
  ASSERT_TRUE(table);
  EXPECT_EQ(definitionText(*table),
            "key dst_ip : U32 named s optional;\nkey dst_ip_present : U8 present;\n"
            "key priority : U32 priority;\naction {\n  a 16777217 { smac : U32 named s; }\n}\n");
  const TableLayout* names = made.layout.table({TableKind::match, tables.at("s")});
  ASSERT_TRUE(names);
  EXPECT_EQ(names->tableName, "translation.s");
}

TEST(TranslationTables, HaveIdsThatStay) {
  P4Info p4Info = oneFieldTable(R"(name: "f" match_type: EXACT type_name { name: "port_id_t" })");
  (*p4Info.mutable_type_info()->mutable_new_types())["port_id_t"]
      .mutable_translated_type()
      ->mutable_sdn_string();
  constexpr uint32_t id = 0x7e53becf;
  EXPECT_EQ(pi::fe::proto::translation_tables(p4Info).at("port_id_t"), id);
  p4Info.mutable_actions(0)->mutable_preamble()->set_id(id);
  EXPECT_EQ(pi::fe::proto::translation_tables(p4Info).at("port_id_t"), id + 1);
}

TEST(Definitions, HoldParametersInTheOrderTheAgentKeepsThem) {
  const struct {
    const char* param;
    const char* field;
  } cases[] = {
      {R"(name: "f" bitwidth: 32)", "f : U32"},
      {R"(name: "dst_ip" bitwidth: 32)", "dst_ip : U32"},  // by name only these four are addresses:
      {R"(name: "dst_addr" bitwidth: 32)", "dst_addr : IpAddr"},
      {R"(name: "src_addr" bitwidth: 24)", "src_addr : Bytes<3>"},
      {R"(name: "smac" bitwidth: 48)", "smac : EthAddr"},
      {R"(name: "dmac" bitwidth: 16)", "dmac : Bytes<2>"},
      {R"(name: "src_addr" bitwidth: 128)", "src_addr : Ip6Addr"},
      {R"(name: "none" bitwidth: 64)", "none_ : Bytes<8>"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.param);
    const Made made = madeOf(oneFieldTable(R"(name: "f" bitwidth: 8 match_type: EXACT)", c.param));
    ASSERT_EQ(made.layout.tables.size(), 1u) << made.findings;
    EXPECT_EQ(definitionText(made.layout.tables[0]),
              "key f : U8;\naction {\n  a 16777217 { " + std::string(c.field) + "; }\n}\n");
  }
}

TEST(Tables, ThatCannotBeProgrammedAreLeftOutByName) {
  std::string ninePrefixes = R"(name: "f" bitwidth: 32 match_type: LPM)";
  std::string wideKey = R"(name: "f" bitwidth: 255 match_type: EXACT)";
  for (int i = 2; i <= 40; ++i) {
    const std::string next = " } match_fields { id: " + std::to_string(i) + " name: \"f\" ";
    if (i <= 9) ninePrefixes += next + "bitwidth: 32 match_type: LPM";
    wideKey += next + "bitwidth: 255 match_type: EXACT";
  }
  const std::string fine = R"(name: "f" bitwidth: 8 match_type: EXACT)";
  const struct {
    std::string field;
    std::string param;
    std::string reason;
  } cases[] = {
      {R"(name: "f" bitwidth: 17 match_type: EXACT)", "", "match field \"f\": it is 17 bits wide"},
      {R"(name: "f" bitwidth: 24 match_type: TERNARY)", "", "match field \"f\": it is 24 bits"},
      {R"(name: "f" bitwidth: 256 match_type: EXACT)", "", "match field \"f\": it is 256 bits"},
      {R"(name: "f" bitwidth: -1 match_type: EXACT)", "", "match field \"f\": its width -1"},
      {R"(name: "f" match_type: EXACT type_name { name: "s" })", "", "\"f\": it is a string"},
      {R"(name: "f" bitwidth: 16 match_type: LPM)", "", "\"f\": it is an LPM field of 16 bits"},
      {R"(name: "f" bitwidth: 8 other_match_type: "odd")", "", "no match type \"odd\""},
      {R"(name: "f" bitwidth: 8)", "", "match field \"f\": it has no match type"},
      {ninePrefixes, "", "9 LPM fields"},
      {wideKey, "", "its key has 1280 bytes"},
      {fine, R"(name: "p" bitwidth: 20)", "action \"c.a\": parameter \"p\": it is 20 bits"},
      {fine, R"(name: "p" bitwidth: 0)", "action \"c.a\": parameter \"p\": it is a string"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.reason);
    const Made made = madeOf(oneFieldTable(c.field, c.param));
    EXPECT_TRUE(made.layout.tables.empty());
    EXPECT_NE(made.findings.find("warning: table c.t: cannot be programmed: "), std::string::npos);
    EXPECT_NE(made.findings.find(c.reason), std::string::npos) << made.findings;
  }
}

TEST(ActionProfiles, GetMemberAndGroupTablesAndTheirTablesIndirectColumns) {
  const Made made = madeOf(p4InfoOf(R"(
    tables { preamble { id: 33554433 name: "c.t" alias: "t" } implementation_id: 285212673
      match_fields { id: 1 name: "indirect_id" bitwidth: 32 match_type: EXACT }
      action_refs { id: 16777217 } direct_resource_ids: 318767105 direct_resource_ids: 352321537 }
    actions { preamble { id: 16777217 name: "c.a" alias: "a" } params { id: 1 name: "p" bitwidth: 8 } }
    action_profiles { preamble { id: 285212673 name: "c.ecmp" alias: "t" } table_ids: 33554433
      with_selector: true }
    direct_counters { preamble { id: 318767105 name: "c.counter" } direct_table_id: 33554433 }
    direct_meters { preamble { id: 352321537 name: "c.meter" } direct_table_id: 33554433 })"));
  ASSERT_EQ(made.layout.tables.size(), 3u) << made.findings;
  EXPECT_EQ(definitionText(made.layout.tables[0]),
            "key indirect_id_ : U32;\nindirect_id : U32;\nis_group : U8;\nmeter;\ncounter;\n");
  const TableLayout* member = made.layout.table({TableKind::member, 285212673});
  const TableLayout* group = made.layout.table({TableKind::group, 285212673});
  ASSERT_TRUE(member != nullptr && group != nullptr);
  EXPECT_EQ(definitionText(*member),
            "key member_id : U32;\naction {\n  a 16777217 { p : U8; }\n}\n");
  EXPECT_EQ(definitionText(*group), "key group_id : U32;\nmember_id : U32[];\n");
  EXPECT_EQ(member->tableName, "t.member");
}

TEST(ActionProfiles, ThatDoNotFitTheirTablesOrTheAgentAreWarnedOf) {
  const auto p4InfoWith = [](const std::string& profile, const std::string& secondTable = "") {
    return p4InfoOf(
        R"(tables { preamble { id: 33554433 name: "c.t" } implementation_id: 285212673
             match_fields { id: 1 name: "f" bitwidth: 8 match_type: EXACT }
             action_refs { id: 16777217 } } )" +
        secondTable + R"( actions { preamble { id: 16777217 name: "c.a" } }
           actions { preamble { id: 16777218 name: "c.b" } }
           action_profiles { preamble { id: 285212673 name: "c.p" } )" +
        profile + " }");
  };
  const auto second = [](const std::string& rest) {
    return R"(tables { preamble { id: 33554434 name: "c.u" }
                match_fields { id: 1 name: "f" bitwidth: 8 match_type: EXACT } )" +
           rest + " }";
  };
  const std::string listed = "table_ids: 33554433 ";
  const std::string selector = listed + "with_selector: true ";
  const std::string both = selector + "table_ids: 33554434";
  const struct {
    P4Info p4Info;
    const char* warning;
  } cases[] = {
      {p4InfoWith(selector + "size: 4096 max_group_size: 2048"), ""},
      {p4InfoWith(listed + "size: 16"), ""},
      {p4InfoWith(selector + "max_group_size: 2049"),
       "action profile c.p: allows groups of 2049 members, counted with their weights; the agent"
       " holds 2048 in one group"},
      {p4InfoWith(selector + "max_group_size: 300 sum_of_members { max_member_weight: 10 }"),
       "action profile c.p: allows groups of 3000 members"},
      {p4InfoWith(selector + "size: 100 max_group_size: 101"),
       "action profile c.p: allows groups of 101 members, but has room for 100 in all"},
      {p4InfoWith(listed + "max_group_size: 8"),
       "action profile c.p: has a group size, but no selector: it takes members only"},
      {p4InfoWith(""), "table c.t: names the action profile c.p, which does not list it"},
      {p4InfoWith(both, second("implementation_id: 285212673 action_refs { id: 16777218 }")),
       "action profile c.p: its tables c.t and c.u have different actions"},
      {p4InfoWith(both, second("implementation_id: 285212673 action_refs { id: 16777217 "
                               "scope: GROUP_ACTION }")),
       "table c.u: its group action \"c.a\" is not run: action sets with it are refused"},
  };
  for (const auto& c : cases) {
    Findings findings;
    const P4InfoLookup index(c.p4Info);
    checkP4Info(index, &findings);
    checkProfiles(index, &findings);
    const std::string wanted = *c.warning ? "warning: " + std::string(c.warning) : "";
    EXPECT_EQ(textOf(findings).substr(0, wanted.size()), wanted) << textOf(findings);
    EXPECT_EQ(findings.list().size(), *c.warning ? 1u : 0u) << textOf(findings);
  }
}

// The server's own words, so that nothing is pushed that it would refuse.
TEST(P4Infos, ThatTheServerRefusesAreErrors) {
  const std::string sound = R"(actions { preamble { id: 16777217 name: "a" } }
      tables { preamble { id: 33554433 name: "t" } action_refs { id: 16777217 } )";
  const struct {
    std::string p4Info;
    const char* finding;
  } cases[] = {
      {sound + "}", ""},
      {sound + "action_refs { id: 5 } }", "error: P4Info: table t refers to action 0x00000005"},
      {sound + "} tables { preamble { name: \"u\" } }", "error: P4Info: table u has the id 0\n"},
      {sound + R"(} action_profiles { preamble { id: 9 name: "p" } table_ids: 33554433 })",
       ""},  // the table keeps its own actions
      {sound + R"(direct_resource_ids: 7 direct_resource_ids: 8 }
                  direct_counters { preamble { id: 7 name: "c" } })",
       "warning: direct counter c: names no table; it belongs to the tables that name it\n"
       "warning: table t: names the direct resource 8, which is no direct counter or meter"},
      {"", "error: P4Info: has no actions; the agent needs one\nerror: P4Info: has no tables"},
  };
  for (const auto& c : cases) {
    const P4Info p4Info = p4InfoOf(c.p4Info);
    Findings findings;
    checkP4Info(P4InfoLookup(p4Info), &findings);
    const std::string text = textOf(findings);
    EXPECT_EQ(*c.finding ? text.substr(0, std::strlen(c.finding)) : text, c.finding) << text;
  }
}

}  // namespace
}  // namespace Pipeline
