// What controllers push: the forms of its device configuration, and the entries that go over to it.
#include <gmock/gmock.h>

#include <algorithm>
#include <functional>

#include "p4/tmp/p4config.pb.h"
#include "p4/v1/p4runtime.pb.h"
#include "pipeline/CarryOver.h"
#include "pipeline/DeviceConfig.h"
#include "pipeline/PushedConfig.h"
#include "pipeline/RowNames.h"
#include "platform/vela/Json.h"
#include "tests/pipeline/Scratch.h"

namespace Pipeline {
namespace {

using p4::config::v1::P4Info;
using p4::v1::ForwardingPipelineConfig;
using p4::v1::SetForwardingPipelineConfigRequest;
using testing::HasSubstr;

constexpr uint32_t tableId = 33554433;
constexpr uint32_t otherTableId = 33554434;
constexpr uint32_t profileId = 285212673;

constexpr const char* program = R"(
tables {
  preamble { id: 33554433 name: "c.routes" alias: "routes" }
  match_fields { id: 1 name: "vrf" bitwidth: 10 match_type: EXACT }
  match_fields { id: 2 name: "dst" bitwidth: 32 match_type: LPM }
  action_refs { id: 16777217 }
  direct_resource_ids: 352321537
  size: 10
}
tables {
  preamble { id: 33554434 name: "c.wcmp" alias: "wcmp" }
  match_fields { id: 1 name: "id" bitwidth: 16 match_type: EXACT }
  action_refs { id: 16777217 }
  implementation_id: 285212673
  size: 10
}
actions {
  preamble { id: 16777217 name: "c.forward" alias: "forward" }
  params { id: 1 name: "port" bitwidth: 9 }
}
action_profiles {
  preamble { id: 285212673 name: "c.selector" alias: "selector" }
  table_ids: 33554434
  with_selector: true
  size: 10
}
direct_meters {
  preamble { id: 352321537 name: "c.meter" alias: "meter" }
  spec { unit: BYTES }
  direct_table_id: 33554433
}
)";

SetForwardingPipelineConfigRequest requestOf(const P4Info& p4Info, const TableNames& names = {}) {
  ForwardingPipelineConfig config;
  *config.mutable_p4info() = p4Info;
  Findings findings;
  const auto request = pipelineOfPush(config, 1, &findings, names);
  EXPECT_TRUE(request) << textOf(findings);
  return request.value_or(SetForwardingPipelineConfigRequest());
}

TEST(Push, EntriesGoOverWhereTheMeaningIsTheSame) {
  const EntryCounts counts = {{{TableKind::match, tableId}, 5},
                              {{TableKind::match, otherTableId}, 0},
                              {{TableKind::member, profileId}, 3},
                              {{TableKind::group, profileId}, 20}};
  const struct {
    const char* what;
    std::function<void(P4Info&)> change;
    std::string line;  // "": all can stay
  } cases[] = {
      {"nothing", [](P4Info&) {}, ""},
      {"sizes", [](P4Info& p) { p.mutable_tables(0)->set_size(5); }, ""},
      {"too small", [](P4Info& p) { p.mutable_tables(0)->set_size(4); },
       "table c.routes, 5 entries: it has room for 4 now"},
      {"a width", [](P4Info& p) { p.mutable_tables(0)->mutable_match_fields(0)->set_bitwidth(11); },
       "its match field vrf has another id, width or kind"},
      {"a field", [](P4Info& p) { p.mutable_tables(0)->mutable_match_fields()->RemoveLast(); },
       "it has more or fewer match fields"},
      {"of a table without entries",
       [](P4Info& p) { p.mutable_tables(1)->mutable_match_fields(0)->set_bitwidth(11); }, ""},
      {"a parameter", [](P4Info& p) { p.mutable_actions(0)->mutable_params(0)->set_bitwidth(16); },
       "its action c.forward has other parameters"},
      {"names that rows do not show",
       [](P4Info& p) { p.mutable_actions(0)->mutable_preamble()->set_name("d.forward"); }, ""},
      {"the alias", [](P4Info& p) { p.mutable_tables(0)->mutable_preamble()->set_alias("r"); },
       "the new pipeline has no such table"},
      {"the meter's columns",
       [](P4Info& p) { p.mutable_tables(0)->mutable_match_fields(0)->set_name("v"); },
       "it has a direct meter, and its columns or actions are others"},
      {"no selector", [](P4Info& p) { p.mutable_action_profiles(0)->set_with_selector(false); },
       "action profile c.selector, 3 members: its selector or the size of its groups is another"},
      {"a small profile", [](P4Info& p) { p.mutable_action_profiles(0)->set_size(2); },
       "action profile c.selector, 3 members: it has room for 2 now"},
  };
  const P4Info former = p4InfoOf(program);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    P4Info next = former;
    c.change(next);
    const auto lines = obstaclesToEntries(requestOf(former), requestOf(next), counts);
    if (c.line.empty()) {
      EXPECT_THAT(lines, testing::IsEmpty());
    } else {
      EXPECT_THAT(lines, testing::Contains(HasSubstr(c.line)));
    }
  }
}

// Only packed headers let controllers leave fields out.
// Their rows are found by these names.
TEST(Push, TablesKeepTheirNamesUnderOtherAliases) {
  P4Info p4Info = p4InfoOf(program);
  const SetForwardingPipelineConfigRequest running = requestOf(p4Info);
  const TableNames names = tableNamesOf(running);
  const TableRef renamed{TableKind::match, tableId};
  const TableRef members{TableKind::member, profileId};
  const TableRef added{TableKind::match, tableId + 100};
  auto& newcomer = *p4Info.add_tables();
  newcomer = p4Info.tables(0);
  newcomer.mutable_preamble()->set_id(added.second);
  newcomer.mutable_preamble()->set_name("c.newcomer");
  newcomer.clear_direct_resource_ids();
  p4Info.mutable_tables(0)->mutable_preamble()->set_alias("renamed");
  p4Info.mutable_action_profiles(0)->mutable_preamble()->set_alias("renamed");
  p4Info.mutable_tables()->SwapElements(0, p4Info.tables_size() - 1);  // the newcomer comes first

  const SetForwardingPipelineConfigRequest next = requestOf(p4Info, names);
  const TableNames nextNames = tableNamesOf(next);
  EXPECT_EQ(nextNames.at(renamed), names.at(renamed));
  EXPECT_EQ(nextNames.at(members), names.at(members));
  EXPECT_EQ(nextNames.at(added), names.at(renamed) + "_2");
  const EntryCounts counts = {{renamed, 1}, {members, 1}};
  EXPECT_THAT(obstaclesToEntries(running, next, counts), testing::IsEmpty());
  EXPECT_THAT(obstaclesToEntries(running, requestOf(p4Info), counts), testing::SizeIs(2));
}

TEST(Push, APacketOutWithANamedPortIsPacked) {
  for (const char* name : {"egress_port", "port"}) {
    P4Info p4Info = p4InfoOf(program);
    auto* header = p4Info.add_controller_packet_metadata();
    header->mutable_preamble()->set_id(67121543);
    header->mutable_preamble()->set_name("packet_out");
    for (const auto& [id, bits] : {std::pair(1, 32), std::pair(2, 8)}) {
      auto* field = header->add_metadata();
      field->set_id(static_cast<uint32_t>(id));
      field->set_name(id == 1 ? name : "submit_to_ingress");
      field->set_bitwidth(bits);
    }
    const auto extensions = extensionsIn(programOf(requestOf(p4Info).config().p4_device_config()));
    EXPECT_EQ(extensions.packetHeaders, std::string(name) == "egress_port");
  }
}

TEST(Push, TheProgramIsFoundInItsWrapping) {
  const std::string json = " {\"program\": 1}";
  p4::tmp::P4DeviceConfig device;
  device.set_reassign(true);
  device.set_device_data(json);
  EXPECT_EQ(programOf(device.SerializeAsString()), json);
  // A plane's own message begins with a name where the wrapping has a number.
  for (const std::string& bytes : {std::string(), json, std::string("\x0a\x01n\x12\x02{}"),
                                   std::string(1, '\0'), std::string("\x08\x01")}) {
    EXPECT_EQ(programOf(bytes), bytes);
  }
}

// Of "tables" in rowNames(): "ROWS: KIND NAME ID" each, and widths.
std::vector<std::string> rowMeanings(const P4Info& p4Info) {
  Findings findings;
  const auto request = requestOf(p4Info);
  p4::tmp::P4DeviceConfig device;
  EXPECT_TRUE(device.ParseFromString(request.config().p4_device_config()));
  const auto config = parseDeviceConfig(device.device_data(), &findings);
  const Vela::Json json = Vela::parseJson(rowNames(p4Info, config.value()));
  std::vector<std::string> all;
  for (const cJSON* table : Vela::JsonElements(Vela::jsonArray(json.get(), "tables"))) {
    std::string text = Vela::jsonString(table, "rows").value() + ": " +
                       Vela::jsonString(table, "kind").value() + " " +
                       Vela::jsonString(table, "name").value() + " " +
                       std::to_string(Vela::jsonNumber(table, "id").value());
    for (const cJSON* bits : Vela::JsonElements(Vela::jsonArray(table, "bits"))) {
      text += " " + std::to_string(Vela::jsonNumber(bits).value());
    }
    all.push_back(text);
  }
  return all;
}

TEST(Push, RowsAreNamedByTheProgramsObjects) {
  P4Info p4Info = p4InfoOf(std::string(program) + R"(
counters { preamble { id: 301989889 name: "c.hits" alias: "hits" } spec { unit: BOTH } size: 4 }
registers { preamble { id: 369098753 name: "c.memory" alias: "memory" }
            type_spec { bitstring { bit { bitwidth: 12 } } } size: 4 }
digests { preamble { id: 385875969 name: "c.seen" alias: "seen" }
          type_spec { bitstring { bit { bitwidth: 12 } } } }
value_sets { preamble { id: 50331649 name: "c.types" alias: "types" }
             match { id: 1 name: "type" bitwidth: 16 match_type: EXACT }
             match { id: 2 name: "code" bitwidth: 4 match_type: EXACT } size: 4 }
)");
  p4Info.mutable_tables(0)->set_idle_timeout_behavior(p4::config::v1::Table::NOTIFY_CONTROL);
  const auto meanings = rowMeanings(p4Info);
  for (const char* meaning :
       {"routes: entries c.routes 33554433", "routes.default: default c.routes 33554433",
        "wcmp: entries c.wcmp 33554434", "selector.member: members c.selector 285212673",
        "selector.group: groups c.selector 285212673", "selector.watch: watch c.selector 285212673",
        "idle_timeout.routes: idle_timeout c.routes 33554433",
        "counter.hits: counter c.hits 301989889",
        "counter.hits.default: counter.default c.hits 301989889",
        "register.memory: register c.memory 369098753", "digest.seen: digest c.seen 385875969",
        "value_set.types: value_set c.types 50331649",
        "value_set.types.member: value_set.member c.types 50331649 16 4",
        "pre.multicast_group.replica: multicast_group.replica  0",
        "pre.clone_session: clone_session  0"}) {
    EXPECT_THAT(meanings, testing::Contains(meaning));
  }
}

TEST(Push, ADeviceConfigurationOfOursIsUsed) {
  ForwardingPipelineConfig config = requestOf(p4InfoOf(program)).config();
  for (const std::string& given :
       {config.p4_device_config(), programOf(config.p4_device_config())}) {
    config.set_p4_device_config(given);
    Findings findings;
    const auto request = pipelineOfPush(config, 7, &findings);
    ASSERT_TRUE(request) << textOf(findings);
    EXPECT_EQ(request->device_id(), 7u);
    EXPECT_EQ(programOf(request->config().p4_device_config()), programOf(given));
  }
}

constexpr const char* filterProgram = R"(
tables {
  preamble { id: 33554433 name: "c.filter" alias: "filter" }
  match_fields { id: 1 name: "valid" bitwidth: 1 match_type: EXACT }
  match_fields { id: 2 name: "src" bitwidth: 32 match_type: TERNARY }
  match_fields { id: 3 name: "kind" bitwidth: 8 match_type: OPTIONAL }
  match_fields { id: 4 name: "dst" bitwidth: 32 match_type: LPM }
  action_refs { id: 16777217 }
  size: 10
}
actions {
  preamble { id: 16777217 name: "c.forward" alias: "forward" }
  params { id: 1 name: "port" bitwidth: 9 }
}
)";

// The fields are found by name, the action by its number in the program; what is left out or hidden
// by a mask is no part of the key, and the first entry wins.
constexpr const char* compiledFilter = R"({
 "actions": [{"name": "c.other", "id": 3}, {"name": "c.forward", "id": 7}],
 "pipelines": [{"name": "ingress", "tables": [{"name": "c.filter",
   "key": [{"match_type": "lpm", "name": "dst"}, {"match_type": "valid", "name": "valid"},
           {"match_type": "ternary", "name": "src"}, {"match_type": "ternary", "name": "kind"}],
   "entries": [
    {"match_key": [{"match_type": "lpm", "key": "0x0a0000ff", "prefix_length": 8},
                   {"match_type": "valid", "key": true},
                   {"match_type": "ternary", "key": "0x0a0b0c0d", "mask": "0xffff0000"},
                   {"match_type": "ternary", "key": "0x07", "mask": "0xff"}],
     "action_entry": {"action_id": 7, "action_data": ["0x1ff"]}, "priority": 1},
    {"match_key": [{"match_type": "lpm", "key": "0x00000000", "prefix_length": 0},
                   {"match_type": "valid", "key": false},
                   {"match_type": "ternary", "key": "0x00000000", "mask": "0x00000000"},
                   {"match_type": "ternary", "key": "0x00", "mask": "0x00"}],
     "action_entry": {"action_id": 7, "action_data": ["0x5"]}, "priority": 2},
    {"match_key": [], "action_entry": {"action_id": 3, "action_data": []}, "priority": 3},
    {"match_key": [{"match_type": "lpm", "key": "nonsense", "prefix_length": 8}],
     "action_entry": {"action_id": 7, "action_data": ["0x1"]}, "priority": 4}]},
  {"name": "hidden", "entries": [{}]}, {"name": 7, "entries": {}}]}]})";

TEST(Push, EntriesOfTheProgramComeWithIt) {
  ForwardingPipelineConfig config;
  *config.mutable_p4info() = p4InfoOf(filterProgram);
  config.set_p4_device_config(compiledFilter);
  for (const bool isInitial : {false, true}) {
    SCOPED_TRACE(isInitial);
    config.mutable_p4info()->mutable_tables(0)->set_has_initial_entries(isInitial);
    Findings findings;
    const auto request = pipelineOfPush(config, 1, &findings);
    ASSERT_TRUE(request);
    EXPECT_THAT(textOf(findings),
                HasSubstr("table c.filter: entry 3 of the program is left out: its "
                          "action is none of the P4Info"));
    EXPECT_THAT(textOf(findings), HasSubstr("entry 4 of the program is left out: "));
    Findings none;
    const auto device = parseDeviceConfig(programOf(request->config().p4_device_config()), &none);
    ASSERT_TRUE(device);
    const auto table = std::ranges::find(device->tables, "filter", &DeviceTable::name);
    ASSERT_NE(table, device->tables.end());
    ASSERT_EQ(table->entries.size(), 2u);
    EXPECT_EQ(table->entries[0].key,
              "01"
              "0a0b0000"
              "ffff0000"
              "07"
              "01"
              "0a000000"
              "08000000");
    EXPECT_EQ(table->entries[0].actionParams, "01ff");
    EXPECT_EQ(table->entries[0].priority, 4u);
    EXPECT_EQ(table->entries[1].key,
              "00"
              "00000000"
              "00000000"
              "00"
              "00"
              "00000000"
              "00000000");
    EXPECT_EQ(table->entries[1].priority, 3u);
    for (const DeviceEntry& entry : table->entries) EXPECT_EQ(entry.isInitial, isInitial);
  }
}

}  // namespace
}  // namespace Pipeline
