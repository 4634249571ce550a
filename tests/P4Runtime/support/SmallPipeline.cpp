#include "tests/P4Runtime/support/SmallPipeline.h"

#include <fmt/format.h>
#include <google/protobuf/text_format.h>

#include <stdexcept>
#include <vector>

#include "p4/tmp/p4config.pb.h"

namespace TestSupport {
namespace {

constexpr const char* p4InfoText = R"(
actions { preamble { id: 0x01000001 name: "set_port" } params { id: 1 name: "port" bitwidth: 9 } }
actions { preamble { id: 0x01000002 name: "set_nexthop" }
  params { id: 1 name: "nexthop" bitwidth: 32 } params { id: 2 name: "dmac" bitwidth: 48 }
  params { id: 3 name: "src_addr" bitwidth: 32 } }
actions { preamble { id: 0x01000003 name: "drop" } }
actions { preamble { id: 0x01000004 name: "set_dmac" } params { id: 1 name: "dmac" bitwidth: 48 } }
actions { preamble { id: 0x01000005 name: "set_label" } params { id: 1 name: "label" bitwidth: 20 } }
direct_meters { preamble { id: 0x15000001 name: "meter" } direct_table_id: 0x02000006 }
direct_counters { preamble { id: 0x13000001 name: "counter" } direct_table_id: 0x02000006 }
tables { preamble { id: 0x02000001 name: "exact" } size: 4
  match_fields { id: 1 name: "ether_type" bitwidth: 16 match_type: EXACT }
  match_fields { id: 2 name: "port" bitwidth: 9 match_type: EXACT }
  action_refs { id: 0x01000001 } action_refs { id: 0x01000003 } }
tables { preamble { id: 0x02000002 name: "route4" }
  match_fields { id: 1 name: "vrf" bitwidth: 16 match_type: EXACT }
  match_fields { id: 2 name: "dst" bitwidth: 32 match_type: LPM }
  action_refs { id: 0x01000002 } action_refs { id: 0x01000003 } }
tables { preamble { id: 0x02000003 name: "route6" }
  match_fields { id: 1 name: "dst" bitwidth: 128 match_type: LPM } action_refs { id: 0x01000003 } }
tables { preamble { id: 0x02000004 name: "acl" }
  match_fields { id: 1 name: "src" bitwidth: 32 match_type: TERNARY }
  match_fields { id: 2 name: "port" bitwidth: 16 match_type: TERNARY }
  match_fields { id: 3 name: "protocol" bitwidth: 8 match_type: EXACT }
  action_refs { id: 0x01000003 } }
tables { preamble { id: 0x02000005 name: "label" }
  match_fields { id: 1 name: "label" bitwidth: 24 match_type: EXACT }
  action_refs { id: 0x01000003 } }
tables { preamble { id: 0x02000006 name: "metered" }
  match_fields { id: 1 name: "id" bitwidth: 32 match_type: EXACT }
  action_refs { id: 0x01000004 } action_refs { id: 0x01000005 }
  direct_resource_ids: 0x15000001 direct_resource_ids: 0x13000001 direct_resource_ids: 99 }
tables { preamble { id: 0x02000007 name: "group" } implementation_id: 0x11000001
  match_fields { id: 1 name: "id" bitwidth: 32 match_type: EXACT } action_refs { id: 0x01000001 } }
tables { preamble { id: 0x02000008 name: "constant" }
  match_fields { id: 1 name: "type" bitwidth: 8 match_type: EXACT }
  action_refs { id: 0x01000001 } }
action_profiles { preamble { id: 0x11000001 name: "profile" } table_ids: 0x02000007 size: 16 }
)";

struct Field {
  const char* name;
  const char* type;
};

struct Table {
  uint32_t id;
  const char* name;
  const char* type;  // definition
  std::vector<Field> fields;
  const char* entries = "";
  const char* tableClass = "TABLE_CLASS_TABLE";
};

const std::vector<Table>& tables() {
  static const std::vector<Table> all = {
      {exactTable,
       "exact",
       "key ether_type : U16; key port : U16;"
       "action { set_port 16777217 { port : U16; } drop 16777219 { none : Void; } }",
       {{"ether_type", "U16"}, {"port", "U16"}}},
      {route4Table,
       "route4",
       "key vrf : U16; key dst : IpGenPrefix; action {"
       "set_nexthop 16777218 { nexthop : U32; dmac : EthAddr; src_addr : IpAddr; }"
       "drop 16777219 { none : Void; } }",
       {{"vrf", "U16"}, {"dst", "IpGenPrefix"}, {"dst_len", "PrefixLen"}}},
      {route6Table,
       "route6",
       "key dst : IpGenPrefix; action { drop 16777219 { none : Void; } }",
       {{"dst", "IpGenPrefix"}, {"dst_len", "PrefixLen"}}},
      {aclTable,
       "acl",
       "key src : IpAddr value; key src_mask : IpAddr mask; key port : U16 value;"
       "key port_mask : U16 mask; key protocol : U8; key priority : U32 priority;"
       "action { drop 16777219 { none : Void; } }",
       {{"src", "IpAddr"},
        {"src_mask", "IpAddr"},
        {"port", "U16"},
        {"port_mask", "U16"},
        {"protocol", "U8"}}},
      {labelTable,
       "label",
       "key label : Bytes<3>; action { drop 16777219 { none : Void; } }",
       {{"label", "Bytes<3>"}}},
      {meteredTable,
       "metered",
       "key id : U32; action { set_dmac 16777220 { dmac : EthAddr; }"
       "set_label 16777221 { label : Bytes<3>; } } meter; counter;",
       {{"id", "U32"}}},
      {groupTable, "group", "key id : U32; indirect_id : U32; is_group : U8;", {{"id", "U32"}}},
      {constantTable,
       "constant",
       "key type : U8; action { set_port 16777217 { port : U16; } }",
       {{"type", "U8"}},
       R"({"key": "0a", "action_id": 16777217, "action_params": "00Ff", "priority": 0},
          {"key": "0b", "action_id": 16777217, "action_params": "0001"})"},
      {profile,
       "profile_member",
       "key member_id : U32; action { set_port 16777217 { port : U16; } }",
       {{"member_id", "U32"}},
       "",
       "table_class_action_profile_member"},
      {profile,
       "profile_group",
       "key group_id : U32; member_id : U32[];",
       {{"group_id", "U32"}},
       "",
       "TABLE_CLASS_ACTION_PROFILE_GROUP"},
  };
  return all;
}

std::string fieldsText(const Table& table) {
  std::string text;
  for (const Field& field : table.fields) {
    text += fmt::format(R"({}{{"field_name": "{}", "field_type": "{}"}})", text.empty() ? "" : ", ",
                        field.name, field.type);
  }
  return text;
}

}  // namespace

std::string smallP4Info() { return p4InfoText; }

std::string smallDeviceConfig() {
  std::string types;
  std::string objects;
  for (const Table& table : tables()) {
    const char* comma = types.empty() ? "" : ",\n";
    types += fmt::format(R"({}{{"table_type": "{}_type", "table_type_def": "{}"}})", comma,
                         table.name, table.type);
    objects += fmt::format(R"({}{{"table_name": "{}", "table_id": {}, "table_type": "{}_type",
      "table_class": "{}", "table_fields": [{}], "table_entries": [{}]}})",
                           comma, table.name, table.id, table.name, table.tableClass,
                           fieldsText(table), table.entries);
  }
  return fmt::format(
      R"({{"p4rtc": {{"table_type_definitions": [{}], "tables": [{}], "queries": []}}}})", types,
      objects);
}

p4::v1::SetForwardingPipelineConfigRequest pipelineOf(const std::string& p4Info,
                                                      const std::string& deviceConfig,
                                                      uint64_t deviceId) {
  p4::v1::SetForwardingPipelineConfigRequest request;
  request.set_device_id(deviceId);
  request.set_action(p4::v1::SetForwardingPipelineConfigRequest::VERIFY_AND_COMMIT);
  auto& config = *request.mutable_config();
  if (!google::protobuf::TextFormat::ParseFromString(p4Info, config.mutable_p4info())) {
    throw std::logic_error("the test's P4Info is wrong");
  }
  p4::tmp::P4DeviceConfig device;
  device.set_device_data(deviceConfig);
  config.set_p4_device_config(device.SerializeAsString());
  return request;
}

p4::v1::SetForwardingPipelineConfigRequest smallPipeline() {
  return pipelineOf(smallP4Info(), smallDeviceConfig());
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
  const size_t at = text.find(from);
  if (at == std::string::npos) throw std::logic_error("nothing to replace: " + from);
  return text.replace(at, from.size(), to);
}

}  // namespace TestSupport
