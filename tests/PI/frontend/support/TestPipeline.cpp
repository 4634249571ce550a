// A pipeline with a table for each rule.
#include "tests/PI/frontend/support/TestPipeline.h"

#include <google/protobuf/text_format.h>

#include "p4/tmp/p4config.pb.h"

namespace test {

using p4::v1::TableEntry;
using p4::v1::Update;

namespace {

// The ids in the text are those of the header.
constexpr char kP4Info[] = R"(
  tables {
    preamble { id: 0x02000001 name: "ingress.ipv4" }
    match_fields { id: 1 name: "vrf" bitwidth: 12 match_type: EXACT }
    match_fields { id: 2 name: "dst" bitwidth: 32 match_type: LPM }
    action_refs { id: 0x01000001 } action_refs { id: 0x01000002 }
    action_refs { id: 0x01000003 scope: DEFAULT_ONLY }
    action_refs { id: 0x01000004 scope: GROUP_ACTION }
    initial_default_action {
      action_id: 0x01000001
      arguments { param_id: 1 value: "\000\001" } arguments { param_id: 2 value: "\002" }
    }
  }
  tables {
    preamble { id: 0x02000002 name: "ingress.acl" }
    match_fields { id: 1 name: "src" bitwidth: 32 match_type: TERNARY }
    match_fields { id: 2 name: "l4" bitwidth: 12 match_type: TERNARY }
    action_refs { id: 0x01000002 } action_refs { id: 0x01000003 }
  }
  tables {
    preamble { id: 0x02000003 name: "ingress.port" }
    match_fields { id: 1 name: "l4" bitwidth: 12 match_type: RANGE }
    match_fields { id: 2 name: "tos" bitwidth: 8 match_type: OPTIONAL }
    action_refs { id: 0x01000002 }
  }
  tables {
    preamble { id: 0x02000004 name: "ingress.counted" }
    match_fields { id: 1 name: "key" bitwidth: 16 match_type: EXACT }
    action_refs { id: 0x01000002 }
    direct_resource_ids: 0x13000001 direct_resource_ids: 0x15000001
    idle_timeout_behavior: NOTIFY_CONTROL
  }
  tables {
    preamble { id: 0x02000005 name: "ingress.const" }
    match_fields { id: 1 name: "key" bitwidth: 8 match_type: EXACT }
    action_refs { id: 0x01000002 }
    const_default_action_id: 0x01000002 is_const_table: true
  }
  tables {
    preamble { id: 0x02000006 name: "ingress.initial" }
    match_fields { id: 1 name: "key" bitwidth: 8 match_type: EXACT }
    action_refs { id: 0x01000002 }
    has_initial_entries: true
  }
  tables { preamble { id: 0x02000007 name: "ingress.keyless" } action_refs { id: 0x01000002 } }
  tables {
    preamble { id: 0x02000008 name: "ingress.wcmp" }
    match_fields { id: 1 name: "key" bitwidth: 8 match_type: EXACT }
    action_refs { id: 0x01000001 } action_refs { id: 0x01000002 }
    action_refs { id: 0x01000003 scope: DEFAULT_ONLY }
    implementation_id: 0x11000001
  }
  tables {
    preamble { id: 0x02000009 name: "ingress.other" }
    match_fields { id: 1 name: "key" bitwidth: 8 other_match_type: "fuzzy" }
    action_refs { id: 0x01000002 }
  }
  tables {
    preamble { id: 0x0200000a name: "ingress.plain" }
    match_fields { id: 1 name: "key" bitwidth: 8 match_type: EXACT }
    action_refs { id: 0x01000001 } action_refs { id: 0x01000002 }
    implementation_id: 0x11000002
  }
  actions {
    preamble { id: 0x01000001 name: "forward" }
    params { id: 1 name: "port" bitwidth: 9 } params { id: 2 name: "dmac" bitwidth: 48 }
  }
  actions { preamble { id: 0x01000002 name: "drop" } }
  actions { preamble { id: 0x01000003 name: "NoAction" } }
  actions { preamble { id: 0x01000004 name: "group" } }
  action_profiles {
    preamble { id: 0x11000001 name: "ingress.nexthops" } table_ids: 0x02000008
    with_selector: true size: 40 max_group_size: 16
  }
  action_profiles {
    preamble { id: 0x11000002 name: "ingress.plain_nexthops" } table_ids: 0x0200000a size: 3
  }
  counters { preamble { id: 0x12000001 name: "ingress.hits" } size: 8 }
  direct_counters {
    preamble { id: 0x13000001 name: "ingress.counter" } direct_table_id: 0x02000004
  }
  direct_meters {
    preamble { id: 0x15000001 name: "ingress.meter" } direct_table_id: 0x02000004
    spec { unit: BYTES }
  }
  controller_packet_metadata {
    preamble { id: 0x04000001 name: "packet_in" }
    metadata { id: 1 name: "ingress_port" bitwidth: 9 }
  }
  controller_packet_metadata {
    preamble { id: 0x04000002 name: "packet_out" }
    metadata { id: 2 name: "submit_to_ingress" bitwidth: 1 }
    metadata { id: 1 name: "egress_port" bitwidth: 32 }
  }
  digests { preamble { id: 0x17000001 name: "ingress.learn" } }
)";

void exactIs(TableEntry* entry, uint32_t field, uint64_t value) {
  auto* match = entry->add_match();
  match->set_field_id(field);
  match->mutable_exact()->set_value(number(value));
}

}  // namespace

p4::v1::ForwardingPipelineConfig pipelineConfig() {
  p4::v1::ForwardingPipelineConfig config;
  google::protobuf::TextFormat::ParseFromString(kP4Info, config.mutable_p4info());
  p4::tmp::P4DeviceConfig device;
  device.set_device_data("{}");
  config.set_p4_device_config(device.SerializeAsString());
  config.mutable_cookie()->set_cookie(7);
  return config;
}

std::string number(uint64_t value) {
  std::string bytes;
  do {
    bytes.insert(bytes.begin(), static_cast<char>(value & 0xff));
    value >>= 8;
  } while (value != 0);
  return bytes;
}

TableEntry ipv4Key(uint32_t vrf, uint32_t dst, int length) {
  TableEntry entry = query(kIpv4);
  exactIs(&entry, 1, vrf);
  if (length == 0) return entry;
  auto* match = entry.add_match();
  match->set_field_id(2);
  match->mutable_lpm()->set_value(number(dst));
  match->mutable_lpm()->set_prefix_len(length);
  return entry;
}

TableEntry ipv4(uint32_t vrf, uint32_t dst, int length, uint32_t port) {
  TableEntry entry = ipv4Key(vrf, dst, length);
  *entry.mutable_action()->mutable_action() = forward(port);
  return entry;
}

p4::v1::Action forward(uint32_t port) {
  p4::v1::Action action;
  action.set_action_id(kForward);
  for (const uint64_t value : {uint64_t{port}, uint64_t{0x0a0b0c0d0e0f}}) {
    auto* param = action.add_params();
    param->set_param_id(action.params_size());
    param->set_value(number(value));
  }
  return action;
}

p4::v1::ActionProfileMember member(uint32_t id, uint32_t port, uint32_t profile) {
  p4::v1::ActionProfileMember member;
  member.set_action_profile_id(profile);
  member.set_member_id(id);
  *member.mutable_action() = forward(port);
  return member;
}

p4::v1::ActionProfileGroup group(uint32_t id, const std::vector<Weight>& members) {
  p4::v1::ActionProfileGroup group;
  group.set_action_profile_id(kNexthops);
  group.set_group_id(id);
  for (const Weight& one : members) {
    auto* member = group.add_members();
    member->set_member_id(one.of);
    member->set_weight(one.weight);
  }
  return group;
}

TableEntry toMember(uint32_t key, uint32_t member, uint32_t table) {
  TableEntry entry = query(table);
  exactIs(&entry, 1, key);
  entry.mutable_action()->set_action_profile_member_id(member);
  return entry;
}

TableEntry toGroup(uint32_t key, uint32_t group) {
  TableEntry entry = query(kWcmp);
  exactIs(&entry, 1, key);
  entry.mutable_action()->set_action_profile_group_id(group);
  return entry;
}

TableEntry oneShot(uint32_t key, const std::vector<Weight>& actions) {
  TableEntry entry = query(kWcmp);
  exactIs(&entry, 1, key);
  auto* set = entry.mutable_action()->mutable_action_profile_action_set();
  for (const Weight& one : actions) {
    auto* action = set->add_action_profile_actions();
    *action->mutable_action() = forward(one.of);
    action->set_weight(one.weight);
  }
  return entry;
}

TableEntry acl(uint32_t src, uint32_t mask, int priority) {
  TableEntry entry = query(kAcl);
  auto* match = entry.add_match();
  match->set_field_id(1);
  match->mutable_ternary()->set_value(number(src));
  match->mutable_ternary()->set_mask(number(mask));
  entry.set_priority(priority);
  entry.mutable_action()->mutable_action()->set_action_id(kDrop);
  return entry;
}

TableEntry exact(uint32_t table, uint32_t key, uint32_t action) {
  TableEntry entry = query(table);
  exactIs(&entry, 1, key);
  entry.mutable_action()->mutable_action()->set_action_id(action);
  return entry;
}

Update update(Update::Type type, const TableEntry& entry) {
  Update result;
  result.set_type(type);
  *result.mutable_entity()->mutable_table_entry() = entry;
  return result;
}

Update update(Update::Type type, const p4::v1::ActionProfileMember& member) {
  Update result;
  result.set_type(type);
  *result.mutable_entity()->mutable_action_profile_member() = member;
  return result;
}

Update update(Update::Type type, const p4::v1::ActionProfileGroup& group) {
  Update result;
  result.set_type(type);
  *result.mutable_entity()->mutable_action_profile_group() = group;
  return result;
}

Update update(Update::Type type, const p4::v1::DirectMeterEntry& meter) {
  Update result;
  result.set_type(type);
  *result.mutable_entity()->mutable_direct_meter_entry() = meter;
  return result;
}

p4::v1::WriteRequest writeOf(const std::vector<Update>& updates) {
  p4::v1::WriteRequest request;
  for (const Update& one : updates) *request.add_updates() = one;
  return request;
}

p4::v1::ReadRequest readOf(const std::vector<TableEntry>& queries) {
  p4::v1::ReadRequest request;
  for (const TableEntry& one : queries) *request.add_entities()->mutable_table_entry() = one;
  return request;
}

TableEntry query(uint32_t table) {
  TableEntry entry;
  entry.set_table_id(table);
  return entry;
}

std::vector<p4::v1::Error> errorsOf(const google::rpc::Status& status) {
  std::vector<p4::v1::Error> errors(status.details_size());
  for (int i = 0; i < status.details_size(); ++i) status.details(i).UnpackTo(&errors[i]);
  return errors;
}

std::vector<int> codesOf(const google::rpc::Status& status) {
  std::vector<int> codes;
  for (const auto& error : errorsOf(status)) codes.push_back(error.canonical_code());
  return codes;
}

}  // namespace test
