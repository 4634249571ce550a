// Pipeline files from build over check to show, and broken ones.
#include <gmock/gmock.h>

#include <array>
#include <cstring>
#include <filesystem>

#include "cli/pipeline/PipelineShow.h"
#include "p4/tmp/p4config.pb.h"
#include "p4/v1/p4runtime.pb.h"
#include "pipeline/Files.h"
#include "pipeline/JsonFault.h"
#include "pipeline/PipelineBuild.h"
#include "pipeline/PipelineCheck.h"
#include "platform/vela/Json.h"
#include "tests/pipeline/Scratch.h"

namespace Pipeline {
namespace {

using Cli::shownPipeline;
using p4::v1::SetForwardingPipelineConfigRequest;
using testing::HasSubstr;

constexpr const char* smallP4Info = R"(
tables {
  preamble { id: 33554433 name: "c.routes" alias: "routes" }
  match_fields { id: 1 name: "vrf" bitwidth: 10 match_type: EXACT }
  match_fields { id: 2 name: "hdr.ipv4.dst" bitwidth: 32 match_type: LPM }
  action_refs { id: 16777217 }
  const_default_action_id: 16777217
  size: 2
}
actions {
  preamble { id: 16777217 name: "c.forward" alias: "forward" }
  params { id: 1 name: "dmac" bitwidth: 48 }
}
)";

constexpr const char* smallEntries = R"([
  {"table": "routes", "match": {"vrf": 1, "dst": "10.0.0.0/8"},
   "action": "forward", "params": {"dmac": "00:11:22:33:44:55"}}
])";

constexpr const char* smallDeviceJson = R"({
	"p4rtc":	{
		"table_type_definitions":	[{
				"table_type":	"routes",
				"table_type_def":	"key vrf : U16;\nkey hdr_ipv4_dst : IpGenPrefix;\naction {\n  forward 16777217 { dmac : EthAddr; }\n}\n"
			}],
		"tables":	[{
				"table_name":	"routes",
				"table_id":	33554433,
				"table_type":	"routes",
				"table_class":	"TABLE_CLASS_MATCH_ACTION",
				"table_fields":	[{
						"field_name":	"vrf",
						"field_type":	"U16"
					}, {
						"field_name":	"hdr_ipv4_dst",
						"field_type":	"IpGenPrefix"
					}, {
						"field_name":	"hdr_ipv4_dst_len",
						"field_type":	"PrefixLen"
					}],
				"table_entries":	[{
						"key":	"00010a00000008000000",
						"action_id":	16777217,
						"action_params":	"001122334455"
					}]
			}],
		"queries":	[]
	}
}
)";

class PipelineFileTest : public ScratchTest {
 protected:
  BuildOptions options() const {
    BuildOptions options;
    options.p4InfoPath = written("p4info", smallP4Info);
    options.entriesPath = written("entries", smallEntries);
    options.deviceId = 7;
    options.plain = true;
    options.outputPath = path("pipeline");
    return options;
  }
  SetForwardingPipelineConfigRequest built(const BuildOptions& options) {
    Findings findings;
    buildPipeline(options, &findings);
    EXPECT_EQ(textOf(findings), "");
    SetForwardingPipelineConfigRequest request;
    EXPECT_TRUE(request.ParseFromString(contents(options.outputPath)));
    return request;
  }
  std::string deviceJson(const SetForwardingPipelineConfigRequest& request) const {
    Findings findings;
    return deviceData(request, &findings).value_or("");
  }
  // What check says of the small pipeline once `text` in its device JSON became `other`.
  std::string checkedWith(const std::string& text, const std::string& other) {
    SetForwardingPipelineConfigRequest request = built(options());
    std::string json = deviceJson(request);
    const size_t at = json.find(text);
    EXPECT_NE(at, std::string::npos) << text;
    if (at != std::string::npos) json.replace(at, text.size(), other);
    p4::tmp::P4DeviceConfig config;
    config.set_device_data(json);
    request.mutable_config()->set_p4_device_config(config.SerializeAsString());
    return checked(written("changed", request.SerializeAsString()));
  }
  std::string checked(const std::string& file) { return textOf(checkPipelineFile(file).findings); }
};

TEST_F(PipelineFileTest, IsBuiltByteForByteFromEveryFormOfAP4Info) {
  BuildOptions options = this->options();
  options.electionId = "3:4";
  const SetForwardingPipelineConfigRequest request = built(options);
  EXPECT_EQ(request.device_id(), 7u);
  EXPECT_EQ(request.action(), SetForwardingPipelineConfigRequest::VERIFY_AND_COMMIT);
  EXPECT_EQ(request.election_id().high(), 3u);
  EXPECT_EQ(request.election_id().low(), 4u);
  EXPECT_EQ(request.config().p4info().DebugString(), p4InfoOf(smallP4Info).DebugString());
  EXPECT_EQ(deviceJson(request), smallDeviceJson);

  const std::string file = contents(options.outputPath);
  options.p4InfoPath = written("binary", p4InfoOf(smallP4Info).SerializeAsString());
  EXPECT_EQ(built(options).SerializeAsString(), file);
  EXPECT_EQ(checked(options.outputPath), "");
}

TEST_F(PipelineFileTest, KeepsWhatACompilerWritesBeyondWhatWeKnow) {
  BuildOptions options = this->options();
  options.p4InfoPath = written("p4info", std::string(smallP4Info) + R"(
    pkg_info { novelty { deep: 1 } }
    externs { extern_type_id: 130 instances { preamble { id: 1 name: "x" }
      info { [type.googleapis.com/some.Type] { a: 1 } } } })");
  Findings findings;
  buildPipeline(options, &findings);
  EXPECT_FALSE(findings.hasErrors());
  EXPECT_THAT(textOf(findings), HasSubstr("no field named \"novelty\""));
  EXPECT_THAT(textOf(findings), HasSubstr("warning: extern x: "));
  EXPECT_EQ(checked(options.outputPath), "");  // the agent's JSON form has no unknown type in it
}

TEST_F(PipelineFileTest, IsNotWrittenWhenTheAgentCouldNotRunIt) {
  BuildOptions options = this->options();
  options.p4InfoPath = written("p4info", R"(actions { preamble { id: 1 name: "a" } })");
  Findings findings;
  buildPipeline(options, &findings);
  EXPECT_EQ(textOf(findings), "error: P4Info: has no tables; the agent needs one\n");
  EXPECT_FALSE(std::filesystem::exists(options.outputPath));

  const auto refusedBuild = [&] {
    return refusal([&] {
      Findings fresh;
      buildPipeline(options, &fresh);
    });
  };
  const struct {
    std::string contents;
    const char* error;
  } noP4Infos[] = {
      {"", "p4info: no P4Info: it is empty"},
      {"\n \n", "p4info: no P4Info: it is empty"},
      {R"({"header_types": [], "parsers": [], "actions": [], "pipelines": []})",
       "no P4Info: it is the compiler's JSON for a software switch; give the P4Info"},
      {smallDeviceJson, "no P4Info: it is the JSON of a device configuration"},
      {"{\"tables\": []\n \"actions\": []}",
       "p4info:2:2: not JSON: a comma or a colon is missing before \"actions\": []}"},
      {"{\"tables\": [\n],}", "p4info:2:3: not JSON: there is a comma too many before }"},
      {"{\"tables\": [", "p4info:1:13: not JSON: the text ends too early"},
      {"tables {", "p4info:1:9: "},
      {"{\"tables\": 7}", "not a P4Info in JSON form"},
      {"hello world", "p4info:1:"},
      {"device_id: 7", "no P4Info: it holds neither tables nor actions"},
      {p4InfoOf(smallP4Info).SerializeAsString().substr(0, 50), "nor a whole binary one"},
      {std::string("\x7f"
                   "ELF\0\1\2",
                   7),
       "nor a whole binary one"},
  };
  for (const auto& c : noP4Infos) {
    options.p4InfoPath = written("p4info", c.contents);
    const std::string error = refusedBuild();
    EXPECT_THAT(error, HasSubstr(c.error));
    EXPECT_EQ(error.find(options.p4InfoPath), 0u) << error;
  }
  options.p4InfoPath = path("nowhere");
  EXPECT_THAT(refusedBuild(), HasSubstr("No such file"));
  options = this->options();
  options.outputPath = path("no/such/folder");
  EXPECT_THAT(refusedBuild(), HasSubstr("cannot be written"));
  options.electionId = "1:x";
  EXPECT_THAT(refusedBuild(), HasSubstr("election id"));
}

TEST_F(PipelineFileTest, IsWrittenToADeviceAndThroughALink) {
  BuildOptions options = this->options();
  std::filesystem::create_symlink("/dev/null", path("null"));
  std::filesystem::create_symlink(written("file", "old"), path("link"));
  for (const char* name : {"null", "link"}) {
    options.outputPath = path(name);
    Findings findings;
    buildPipeline(options, &findings);
    EXPECT_TRUE(std::filesystem::is_symlink(path(name))) << name;
  }
  EXPECT_EQ(checked(path("file")), "");
}

TEST_F(PipelineFileTest, TakesQueriesThatAreWhole) {
  BuildOptions options = this->options();
  const std::string query =
      R"({"output_table_path": "p", "output_table_type": "t",
          "query": "SELECT DISTINCT vrf AS v FROM a", "params": [],
          "input_tables": [{"table_key": "a", "table_value": "routes"}]})";
  const std::string types =
      R"({"table_type_definitions": [{"table_type": "t", "table_type_def": "key v : U16;"}], )";
  options.queriesPath = written("queries", types + "\"queries\": [" + query + "]}");
  EXPECT_THAT(deviceJson(built(options)), HasSubstr("\"SELECT DISTINCT vrf AS v FROM a\""));
  EXPECT_THAT(
      shownPipeline(options.outputPath, false),
      HasSubstr("query p   rows of type t\n  kept    complete evaluation: it has DISTINCT"));
  for (const auto& [good, bad, error] : std::vector<std::array<const char*, 3>>{
           {"\"t\"", "\"u\"", "error: query p: its output type u is not known"},
           {"routes", "roots", "error: query p: its input table roots does not exist"},
           {"\"routes", "\"p", "error: query p: it reads its own output"},
           {"\"p\"", "\"routes\"", "error: query routes: its output table has the name of"},
           {"vrf AS", "vfr AS", "error: query p: no such column: vfr"}}) {
    std::string wrong = query;
    wrong.replace(wrong.find(good), std::strlen(good), bad);
    options.queriesPath = written("queries", types + "\"queries\": [" + wrong + "]}");
    Findings findings;
    buildPipeline(options, &findings);
    ASSERT_TRUE(findings.hasErrors()) << error;
    EXPECT_THAT(findingText(findings.list().front()), HasSubstr(error));
  }
  options.queriesPath = written("queries", "[" + query + ", {\"query\": \"x\"}]");
  Findings findings;
  EXPECT_THAT(refusal([&] { buildPipeline(options, &findings); }),
              HasSubstr("query 2: has no text \"output_table_path\""));
}

// Rows of groups and other entities are constant entries, too.
TEST_F(PipelineFileTest, ShowsTheRowsOfEntitiesThatItBrings) {
  BuildOptions options = this->options();
  options.plain = false;
  options.p4InfoPath = written("p4info", std::string(smallP4Info) + R"(
    counters { preamble { id: 301989889 name: "c.hits" alias: "hits" } spec { unit: BOTH }
               size: 4 })");
  options.entriesPath = written("entries", R"([
    {"table": "routes", "match": {"vrf": 1, "dst": "10.0.0.0/8"},
     "action": "forward", "params": {"dmac": "00:11:22:33:44:55"}},
    {"table": "pre.multicast_group", "match": {"multicast_group_id": 7}, "action": "group"},
    {"table": "pre.multicast_group.replica", "action": "row",
     "match": {"multicast_group_id": 7, "egress_port": 258, "instance": 5}},
    {"table": "pre.clone_session", "match": {"session_id": 500}, "action": "session",
     "params": {"class_of_service": 3, "packet_length_bytes": 128}}])");
  built(options);
  const std::string page = shownPipeline(options.outputPath, false);
  EXPECT_THAT(page, HasSubstr("4 constant entries"));
  for (const char* rows :
       {"rows of pre.multicast_group\n  entry   multicast_group_id = 7 -> group()\n",
        "rows of pre.multicast_group.replica\n  entry   multicast_group_id = 7, egress_port = 258, "
        "instance = 5 -> row()\n",
        "rows of pre.clone_session\n  entry   session_id = 500 -> session(class_of_service = 3, "
        "packet_length_bytes = 128)\n"}) {
    EXPECT_THAT(page, HasSubstr(rows));
  }
  EXPECT_THAT(page, testing::Not(HasSubstr("rows of counter.")));
  EXPECT_THAT(shownPipeline(options.outputPath, true), HasSubstr("\"entity_entries\""));
}

TEST_F(PipelineFileTest, IsCheckedAsTheAgentWillReadIt) {
  const struct {
    const char* text;
    const char* other;
    const char* finding;
  } cases[] = {
      {"{\n", "", "has no object \"p4rtc\""},
      {"}],\n\t\t\"tables\"", "}]\n\t\t\"tables\"",
       "error: the device configuration, line and column 7:3: not JSON: a comma or a colon is"
       " missing before \"tables\""},
      {"p4rtc", "p4rtx", "has no object \"p4rtc\""},
      {"\"tables\"", "\"tablets\"", "error: the device configuration: has no array \"tables\""},
      {"\"queries\"", "\"query\"", ""},
      {"\"tables\"", "\"TABLES\"", ""},
      {"\"queries\":\t[]", "\"queries\":\t{}", "has no array \"queries\""},
      {"}],\n\t\t\"tables\"",
       "}, {\"table_type\": \"routes\", \"table_type_def\": \"key a : U8;\"}],\"tables\"",
       "error: table type routes: is defined twice"},
      {"key vrf : U16", "kee vrf : U16", "error: table type routes: does not compile: "},
      {"\"table_type\":\t\"routes\",\n\t\t\t\t\"table_class\"",
       "\"table_type\":\t\"other\",\n\t\t\t\t\"table_class\"",
       "error: table routes: its type \"other\" is not among the definitions"},
      {"\"field_type\":\t\"U16\"", "\"field_type\":\t\"U32\"",
       "error: table routes: the table fields differ from table type routes: field vrf is U32"},
      {"33554433", "33554499", "warning: table routes: its id 33554499 is no table of the P4Info"},
      {"33554433", "33554499",
       "warning: table c.routes: the device configuration has no such table"},
      {"\"table_id\":\t33554433", "\"table_id\":\t\"x\"", "error: table routes: has no number"},
      {"16777217 {", "16777218 {",
       "cannot be programmed: its type has none of the table's actions"},
      {"dmac : EthAddr", "dmac : U32", "column \"dmac\" of 4 bytes is not for 48 bits"},
      {"\\naction", "\\ncounter;\\naction", "its columns behind the key are not the action\n"},
      {"\"00010a00", "\"000a00", "constant entry 1 cannot be programmed: key has 9 bytes"},
      {"\"00010a00", "\"04010a00", "the value 0x0401 of \"vrf\" does not fit its 10 bits"},
      {"08000000\"", "21000000\"", "the prefix length 33 of \"hdr.ipv4.dst\" is beyond"},
      {"08000000\"", "00010000\"", "the prefix length 256 of \"hdr.ipv4.dst\" is beyond"},
      {"\"001122334455\"", "\"0011223344\"", "action_params has 5 bytes"},
      {"\"001122334455\"", "\"xy\"", "\"xy\" is not hexadecimal"},
      {"\"action_id\":\t16777217", "\"action_id\":\t3", "the action 3 is not one of the table's"},
      {"\"action_id\"", "\"priority\": 1.5, \"action_id\"",
       "constant entry 1 cannot be programmed: its priority is no whole number of 32 bits"},
      {"\"table_entries\":\t[",
       "\"table_entries\": [{\"key\": \"00010A00000008000000\", \"action_id\": 16777217,"
       " \"action_params\": \"001122334455\"}, ",
       "constant entry 2 cannot be programmed: it has the match of entry 1"},
      {"\"table_entries\":\t[", "\"table_entries\": 7, \"x\": [",
       "warning: table routes: gets no constant entries: its \"table_entries\" is no array"},
      {"\"table_name\":\t\"routes", "\"table_name\": \"ro\\u001butes",
       "error: element 1 of \"tables\": its \"table_name\" is no line of plain text"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.text) + " -> " + c.other);
    const std::string findings = checkedWith(c.text, c.other);
    EXPECT_THAT(findings, HasSubstr(c.finding));
    EXPECT_EQ(findings.empty(), !*c.finding) << findings;
  }
}

// What the agent would not start with, or would start with and lose every entry by.
TEST_F(PipelineFileTest, RunsOnlyWhenItInstallsThePipeline) {
  SetForwardingPipelineConfigRequest request = built(options());
  const auto changed = [&] { return checked(written("changed", request.SerializeAsString())); };
  for (int action = 0; action <= 6; ++action) {
    request.set_action(static_cast<SetForwardingPipelineConfigRequest::Action>(action));
    const bool commits = request.action() == SetForwardingPipelineConfigRequest::VERIFY_AND_COMMIT;
    EXPECT_EQ(changed().find("it must be VERIFY_AND_COMMIT") == std::string::npos, commits)
        << action;
  }
  request.set_action(SetForwardingPipelineConfigRequest::VERIFY_AND_COMMIT);
  request.set_device_id(0);
  EXPECT_EQ(changed(), "");
  request.set_device_id(uint64_t{1} << 32);
  EXPECT_THAT(changed(), HasSubstr("the device id 4294967296 is none that an agent is"));
}

TEST_F(PipelineFileTest, IsRefusedWhenBroken) {
  SetForwardingPipelineConfigRequest request = built(options());
  const std::string whole = request.SerializeAsString();
  SetForwardingPipelineConfigRequest noConfig;
  noConfig.set_device_id(300);
  const auto with = [&](const std::string& deviceConfig) {
    request.mutable_config()->set_p4_device_config(deviceConfig);
    return request.SerializeAsString();
  };
  const struct {
    std::string contents;
    const char* error;
  } cases[] = {
      {"", "no pipeline file: it is empty"},
      {smallP4Info, "it is a P4Info; make a pipeline file of it with 'korvel pipeline build"},
      {p4InfoOf(smallP4Info).SerializeAsString(), "it is a P4Info; make a pipeline file of it"},
      {R"({"tables": [], "actions": []})", "it is a P4Info; make a pipeline file of it"},
      {R"({"header_types": [], "parsers": []})", "it is the compiler's JSON for a software switch"},
      {smallDeviceJson, "it is the JSON of a device configuration alone"},
      {"a letter to you", "a text file; expected a binary pipeline file"},
      {whole.substr(0, whole.size() - 1), "cut short"},
      {noConfig.SerializeAsString(), "it holds no pipeline configuration"},
      {with(""), "has no device configuration"},
      {with("{\"p4rtc\": {}}"), "is no p4.tmp.P4DeviceConfig"},
      {with(p4::tmp::P4DeviceConfig().SerializeAsString() + "\x08\x01"), "has no device_data"},
  };
  for (const auto& c : cases) {
    const std::string file = written("broken", c.contents);
    EXPECT_THAT(checked(file), HasSubstr(c.error));
    EXPECT_THAT(refusal([&] { shownPipeline(file, false); }), HasSubstr(c.error));
  }
  // Whatever is cut off or flipped: a finding, a refusal or a clean bill, but no crash.
  for (size_t i = 0; i < whole.size(); i += 3) {
    checked(written("cut", whole.substr(0, i)));
    std::string flipped = whole;
    flipped[i] = static_cast<char>(flipped[i] ^ 0x15);
    const std::string file = written("flipped", flipped);
    checked(file);
    refusal([&] { shownPipeline(file, true); });
  }
}

TEST_F(PipelineFileTest, IsShownToPeopleAndAsJson) {
  built(options());
  EXPECT_EQ(shownPipeline(path("pipeline"), false),
            "pipeline for device 7\n"
            "1 table, 0 action profiles, 1 constant entry\n"
            "\n"
            "table c.routes   id 33554433, room for 2\n"
            "  key     vrf                              bit<10>   exact    vrf : U16\n"
            "  key     hdr.ipv4.dst                     bit<32>   lpm      "
            "hdr_ipv4_dst : IpGenPrefix\n"
            "  action  c.forward(dmac: bit<48>)\n"
            "  entry   vrf = 1, hdr.ipv4.dst = 10.0.0.0/8 -> c.forward(dmac = "
            "00:11:22:33:44:55)\n");
  const Vela::Json json = parseJsonFile("shown", shownPipeline(path("pipeline"), true));
  const cJSON* table = cJSON_GetArrayItem(Vela::jsonArray(json.get(), "tables"), 0);
  EXPECT_EQ(Vela::jsonString(table, "table"), "routes");
  EXPECT_EQ(cJSON_GetArraySize(Vela::jsonArray(table, "constant_entries")), 1);
}

TEST_F(PipelineFileTest, OfTheRouterExampleHasNothingToObjectTo) {
  BuildOptions options;
  options.p4InfoPath = KORVEL_EXAMPLES "/router/router.p4info.txtpb";
  options.entriesPath = KORVEL_EXAMPLES "/router/router.entries.json";
  options.deviceId = 1;
  options.outputPath = path("router");
  built(options);
  EXPECT_EQ(checked(options.outputPath), "");
  EXPECT_THAT(shownPipeline(options.outputPath, false),
              HasSubstr("action profile ingress.wcmp_selector   id 285212673, room for 16384, "
                        "groups of up to 512 members, counted by weight\n"
                        "  tables  ingress.wcmp\n"
                        "  rows    wcmp_selector.member, wcmp_selector.group\n"
                        "  action  ingress.set_nexthop(nexthop_id: bit<32>)\n"
                        "  action  NoAction()   as default only\n"));
}

}  // namespace
}  // namespace Pipeline
