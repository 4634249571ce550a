// Constant entries from both kinds of file, to the bytes that the agent programs.
#include "pipeline/EntriesFile.h"
#include "pipeline/P4InfoLookup.h"
#include "pipeline/TableLayout.h"
#include "pipeline/ValueText.h"
#include "tests/pipeline/Scratch.h"

namespace Pipeline {
namespace {

class ConstantEntryTest : public ScratchTest {
 protected:
  ConstantEntryTest()
      : p4Info_(p4InfoOf(R"(
    tables { preamble { id: 1 name: "c.lpm" alias: "lpm" } action_refs { id: 17 }
      match_fields { id: 1 name: "meta.vrf" bitwidth: 9 match_type: EXACT }
      match_fields { id: 2 name: "hdr.ipv4.dst" bitwidth: 32 match_type: LPM } }
    tables { preamble { id: 2 name: "c.acl" alias: "acl" } action_refs { id: 17 }
      action_refs { id: 18 scope: DEFAULT_ONLY }
      match_fields { id: 1 name: "ip" bitwidth: 32 match_type: TERNARY }
      match_fields { id: 2 name: "port" bitwidth: 16 match_type: RANGE }
      match_fields { id: 3 name: "opt" bitwidth: 8 match_type: OPTIONAL } }
    tables { preamble { id: 3 name: "c.refused" } action_refs { id: 17 }
      match_fields { id: 1 name: "x" bitwidth: 20 match_type: EXACT } }
    tables { preamble { id: 4 name: "c.ecmp" } action_refs { id: 17 } implementation_id: 9
      match_fields { id: 1 name: "x" bitwidth: 8 match_type: EXACT } }
    action_profiles { preamble { id: 9 name: "c.p" } table_ids: 4 }
    actions { preamble { id: 17 name: "c.set" alias: "set" }
      params { id: 1 name: "mac" bitwidth: 48 } params { id: 2 name: "n" bitwidth: 12 } }
    actions { preamble { id: 18 name: "c.nop" alias: "nop" } })")),
        index_(p4Info_) {
    Findings refusedTable;
    layout_ = pipelineLayout(index_, {}, &refusedTable);
  }

  std::vector<ConstantEntry> read(const std::string& contents) {
    return readConstantEntries(written("entries", contents), index_, layout_, &findings_);
  }
  std::string refused(const std::string& contents) {
    return refusal([&] { read(contents); });
  }

  p4::config::v1::P4Info p4Info_;
  P4InfoLookup index_;
  PipelineLayout layout_;
  Findings findings_;
};

constexpr const char* set = R"("action": "set", "params": {"mac": "00:11:22:33:44:55", "n": 7})";
constexpr const char* setBytes = "0011223344550007";

std::string lpmEntry(const std::string& match) {
  return R"([{"table": "lpm", "match": {)" + match + "}, " + set + "}]";
}
std::string aclEntry(const std::string& match, const std::string& priority = "10") {
  return R"([{"table": "acl", "priority": )" + priority + R"(, "match": {)" + match + "}, " + set +
         "}]";
}

TEST_F(ConstantEntryTest, AreEncodedFieldByField) {
  const std::string rest = R"(, "port": 80, "opt": "0xff")";
  const struct {
    const char* what;
    std::string file;
    const char* key;
  } cases[] = {
      {"prefix", lpmEntry(R"("vrf": 257, "dst": "10.0.0.0/8")"), "01010a00000008000000"},
      {"host", lpmEntry(R"("meta.vrf": "1", "dst": "10.0.0.1")"), "00010a00000120000000"},
      {"default route", lpmEntry(R"("vrf": 1)"), "00010000000000000000"},
      {"prefix 0", lpmEntry(R"("vrf": true, "dst": "0.0.0.0/0")"), "00010000000000000000"},
      {"ternary", aclEntry(R"("ip": "10.0.0.0&&&255.0.0.0")" + rest), "0a000000ff0000000050ff"},
      {"ternary prefix", aclEntry(R"("ip": "10.0.0.0/8")" + rest), "0a000000ff0000000050ff"},
      {"ternary value", aclEntry(R"("ip": "10.0.0.1")" + rest), "0a000001ffffffff0050ff"},
      {"don't care", aclEntry(R"("ip": "*")" + rest), "00000000000000000050ff"},
      {"range of one", aclEntry(R"("port": "80..80", "opt": 1)"), "0000000000000000005001"},
      {"a compiler's write request",
       R"(updates { type: INSERT entity { table_entry { table_id: 1 is_const: true
            match { field_id: 2 lpm { value: "\n\000\000\000" prefix_len: 8 } }
            match { field_id: 1 exact { value: "\001\001" } }
            action { action { action_id: 17 params { param_id: 2 value: "\007" }
                     params { param_id: 1 value: "\021\"3DU" } } } } } })",
       "01010a00000008000000"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const std::vector<ConstantEntry> entries = read(c.file);
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(hexText(entries[0].key), c.key);
    EXPECT_EQ(hexText(entries[0].actionParams), setBytes);
    EXPECT_EQ(entries[0].actionId, 17u);
    EXPECT_EQ(entries[0].priority, entries[0].tableId == 2 ? 10u : 0u);
  }
  EXPECT_EQ(textOf(findings_), "");
}

TEST_F(ConstantEntryTest, ThatDoNotFitAreRefusedByName) {
  const std::string vrf = R"("vrf": 1)";
  const std::string rest = R"("port": 80, "opt": 1)";
  const struct {
    std::string file;
    const char* error;
  } cases[] = {
      {"[{", "entries:1:3: not JSON: the text ends too early"},
      {"{\"table\": 1}", "expected an array of entries"},
      {"[7]", "entry 1: expected an object"},
      {R"([{"tabel": "lpm"}])", "entry 1: unknown \"tabel\""},
      {R"([{"table": "lmp"}])", "no table \"lmp\"; did you mean \"c.lpm\"?"},
      {R"([{"table": "lpm", "action": "sit"}])", "no action \"sit\"; did you mean \"c.set\"?"},
      {lpmEntry(R"("dst": "10.0.0.0/8")"), "(table lpm): match field \"meta.vrf\": missing"},
      {lpmEntry(vrf + R"(, "meta.vrf": 2)"), "match field \"meta.vrf\" is given twice"},
      {lpmEntry(R"("vrf": 512)"), "match field \"meta.vrf\": \"512\" does not fit 9 bits"},
      {lpmEntry(R"("vrf": 1.5)"), "match field \"meta.vrf\": expected a whole number"},
      {lpmEntry(R"("vrf": "1&&&1")"), "match field \"meta.vrf\": expected one value"},
      {lpmEntry(vrf + R"(, "dst": "10.0.0.1/8")"), "10.0.0.1/8 has bits set below the prefix"},
      {lpmEntry(vrf + R"(, "dst": "10.0.0.0/33")"), "prefix length \"33\" is no number from 0"},
      {lpmEntry(vrf + R"(, "dst": "::/8")"), "has 128 bits, and the field 32"},
      {lpmEntry(vrf + R"(, "port": 1)"), "no match field \"port\"; there is: meta.vrf"},
      {aclEntry(R"("ip": "10.0.0.1&&&255.0.0.0", )" + rest), "bits outside its mask"},
      {aclEntry(R"("port": "1..9", "opt": 1)"), "ranges of one value only"},
      {aclEntry(R"("opt": 1)"), "match field \"port\": the agent programs ranges of one value"},
      {aclEntry(R"("port": 80)"), "match field \"opt\": the agent cannot leave an optional"},
      {aclEntry(rest, "0"), "it needs a \"priority\" above 0"},
      {aclEntry(rest, "-1"), "\"priority\" is no whole number"},
      {R"([{"table": "lpm", "priority": 1, "match": {"vrf": 1}, )" + std::string(set) + "}]",
       "its priority must be 0"},
      {R"([{"table": "acl", "priority": 1, "match": {"port": 1, "opt": 1}, "action": "nop"}])",
       "action \"c.nop\" is not for entries of the table"},
      {R"([{"table": "lpm", "match": {"vrf": 1}, "action": "set", "params": {"n": 1}}])",
       "action \"c.set\" needs its parameter \"mac\""},
      {R"(updates { type: MODIFY entity { table_entry { table_id: 1 } } })",
       "entry 1 (table c.lpm): expected an INSERT, not MODIFY"},
      {R"(updates { type: INSERT entity { table_entry { table_id: 9 action { action { } } } } })",
       "entry 1: there is no table 9"},
      {R"([{"table": "ecmp", "match": {"x": 1}, )" + std::string(set) + "}]",
       "entry 1 (table ecmp): the table takes members, groups or action sets of an action profile"},
      {R"(updates { type: INSERT entity { table_entry { table_id: 4
            action { action_profile_group_id: 1 } } } })",
       "entry 1 (table c.ecmp): the table takes members, groups"},
      {R"(updates { type: INSERT entity { action_profile_member { member_id: 1 } } })",
       "entry 1: expected a table_entry, or an entry of the packet_replication_engine"},
      {"updates { type: }", "entries:1:17: "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    const std::string error = refused(c.file);
    EXPECT_NE(error.find(c.error), std::string::npos) << error;
    EXPECT_EQ(error.find(path("entries")), 0u) << error;
    EXPECT_EQ(error.find('\n'), std::string::npos) << error;
  }
}

TEST_F(ConstantEntryTest, OfOneKeyAreRefusedAndOfRefusedTablesLeftOut) {
  const std::string one = lpmEntry(R"("vrf": 1)");
  const std::string two = one.substr(0, one.size() - 1) + "," + one.substr(1);
  EXPECT_NE(refused(two).find("entry 2 (table lpm): it has the key of entry 1"), std::string::npos);

  const std::string other =
      R"([{"table": "refused", "match": {"x": 1}, )" + std::string(set) + "}]";
  EXPECT_TRUE(read(other).empty());
  EXPECT_NE(textOf(findings_).find("entry 1 (table refused): left out"), std::string::npos);
}

// In both forms of file: as rows of their tables, and as a controller writes them.
TEST_F(ConstantEntryTest, OfTheReplicationEngineAreRows) {
  constexpr Extensions extensions{.fields = true, .entities = true};
  const P4InfoLookup index(p4Info_, extensions);
  Findings said;
  const PipelineLayout layout = pipelineLayout(index, extensions, &said);
  const auto rows = [&](const std::string& contents) {
    std::vector<std::string> texts;
    for (const ConstantEntry& entry :
         readConstantEntries(written("entries", contents), index, layout, &said)) {
      texts.push_back(std::to_string(entry.tableId) + " " + hexText(entry.key) + " " +
                      std::to_string(entry.actionId) + " " + hexText(entry.actionParams));
    }
    return texts;
  };
  const auto people = rows(R"([
    {"table": "pre.multicast_group", "match": {"multicast_group_id": 7}, "action": "group"},
    {"table": "pre.multicast_group.replica", "action": "row",
     "match": {"multicast_group_id": 7, "egress_port": 258, "instance": 5}},
    {"table": "pre.clone_session", "match": {"session_id": 500}, "action": "session",
     "params": {"class_of_service": 3, "packet_length_bytes": 128}},
    {"table": "pre.clone_session.replica", "action": "row",
     "match": {"session_id": 500, "egress_port": 510, "instance": 0}}])");
  EXPECT_EQ(people.size(), 4u);
  const std::string update = "updates { type: INSERT entity { packet_replication_engine_entry { ";
  const std::string group = update + R"(multicast_group_entry { multicast_group_id: 7
      replicas { port: "\001\002" instance: 5 } } } } })";
  EXPECT_EQ(rows(group + update + R"(clone_session_entry { session_id: 500 class_of_service: 3
      packet_length_bytes: 128 replicas { egress_port: 510 } } } } })"),
            people);
  EXPECT_EQ(textOf(said).find("egress_port"), std::string::npos) << textOf(said);
}

}  // namespace
}  // namespace Pipeline
