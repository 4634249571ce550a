// See Pipeline.h.
#include "tests/support/Pipeline.h"

#include <cjson/cJSON.h>

#include <fstream>
#include <memory>
#include <stdexcept>

#include "p4/tmp/p4config.pb.h"

namespace TestSupport {
namespace {

template <typename Objects>
const auto& named(const Objects& objects, const std::string& name) {
  for (const auto& object : objects) {
    if (object.preamble().alias() == name || object.preamble().name() == name) return object;
  }
  throw std::out_of_range("the pipeline has no object " + name);
}

template <typename Objects>
const auto& withId(const Objects& objects, uint32_t id) {
  for (const auto& object : objects) {
    if (object.preamble().id() == id) return object;
  }
  throw std::out_of_range("the pipeline has no object with id " + std::to_string(id));
}

Pipeline::RowTables rowTablesOf(const std::string& deviceJson) {
  struct Delete {
    void operator()(cJSON* json) const { cJSON_Delete(json); }
  };
  const std::unique_ptr<cJSON, Delete> root(cJSON_Parse(deviceJson.c_str()));
  const cJSON* tables = cJSON_GetObjectItem(cJSON_GetObjectItem(root.get(), "p4rtc"), "tables");
  Pipeline::RowTables result;
  const cJSON* table = nullptr;
  cJSON_ArrayForEach(table, tables) {
    const cJSON* name = cJSON_GetObjectItem(table, "table_name");
    const cJSON* id = cJSON_GetObjectItem(table, "table_id");
    const cJSON* kind = cJSON_GetObjectItem(table, "table_class");
    if (!cJSON_IsString(name) || !cJSON_IsString(kind) || !id) continue;
    if (std::string_view(kind->valuestring) == "TABLE_CLASS_DEFAULT_ACTION") continue;
    const uint32_t number = cJSON_IsString(id) ? static_cast<uint32_t>(std::stoul(id->valuestring))
                                               : static_cast<uint32_t>(id->valuedouble);
    const std::string_view text = kind->valuestring;
    auto& names = text == "TABLE_CLASS_ACTION_PROFILE_MEMBER"  ? result.members
                  : text == "TABLE_CLASS_ACTION_PROFILE_GROUP" ? result.groups
                                                               : result.match;
    names[number] = name->valuestring;
  }
  return result;
}

}  // namespace

std::string canonicalBytes(uint64_t value) {
  std::string bytes;
  for (int shift = 56; shift >= 0; shift -= 8) {
    const char byte = static_cast<char>(value >> shift);
    if (byte != 0 || !bytes.empty() || shift == 0) bytes.push_back(byte);
  }
  return bytes;
}

std::string paddedBytes(const std::string& value, int bitwidth) {
  const size_t size = static_cast<size_t>(bitwidth + 7) / 8;
  if (value.size() >= size) return value.substr(value.size() - size);
  return std::string(size - value.size(), '\0') + value;
}

Pipeline::Pipeline(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!request_.ParseFromIstream(&file)) throw std::runtime_error("no pipeline file: " + path);
  p4::tmp::P4DeviceConfig device;
  if (!device.ParseFromString(request_.config().p4_device_config())) {
    throw std::runtime_error("no device configuration in " + path);
  }
  rowTables_ = rowTablesOf(device.device_data());
}

const p4::config::v1::Table& Pipeline::table(const std::string& name) const {
  return named(p4info().tables(), name);
}
const p4::config::v1::Table& Pipeline::table(uint32_t id) const {
  return withId(p4info().tables(), id);
}
const p4::config::v1::Action& Pipeline::action(const std::string& name) const {
  return named(p4info().actions(), name);
}
const p4::config::v1::Action& Pipeline::action(uint32_t id) const {
  return withId(p4info().actions(), id);
}

const p4::config::v1::ActionProfile& Pipeline::profile(const std::string& name) const {
  return named(p4info().action_profiles(), name);
}

void Pipeline::profileSizeIs(const std::string& name, int64_t size) {
  const uint32_t id = profile(name).preamble().id();
  for (auto& profile : *request_.mutable_config()->mutable_p4info()->mutable_action_profiles()) {
    if (profile.preamble().id() == id) profile.set_size(size);
  }
}

void Pipeline::tableSizeIs(const std::string& name, int64_t size) {
  const uint32_t id = table(name).preamble().id();
  for (auto& table : *request_.mutable_config()->mutable_p4info()->mutable_tables()) {
    if (table.preamble().id() == id) table.set_size(size);
  }
}

void Pipeline::written(const std::string& path) const {
  std::ofstream file(path, std::ios::binary);
  if (!request_.SerializeToOstream(&file)) throw std::runtime_error("cannot write " + path);
}

p4::v1::Action actionOf(const Pipeline& pipeline, const std::string& name,
                        const std::map<std::string, uint64_t>& params) {
  const auto& definition = pipeline.action(name);
  p4::v1::Action action;
  action.set_action_id(definition.preamble().id());
  for (const auto& param : definition.params()) {
    auto& value = *action.add_params();
    value.set_param_id(param.id());
    value.set_value(canonicalBytes(params.at(param.name())));
  }
  return action;
}

p4::v1::ActionProfileMember memberOf(const Pipeline& pipeline, const std::string& profile,
                                     uint32_t id, const std::string& action,
                                     const std::map<std::string, uint64_t>& params) {
  p4::v1::ActionProfileMember member;
  member.set_action_profile_id(pipeline.profile(profile).preamble().id());
  member.set_member_id(id);
  if (!action.empty()) *member.mutable_action() = actionOf(pipeline, action, params);
  return member;
}

p4::v1::ActionProfileGroup groupOf(const Pipeline& pipeline, const std::string& profile,
                                   uint32_t id, const std::map<uint32_t, int>& weights) {
  p4::v1::ActionProfileGroup group;
  group.set_action_profile_id(pipeline.profile(profile).preamble().id());
  group.set_group_id(id);
  for (const auto& [member, weight] : weights) {
    auto& added = *group.add_members();
    added.set_member_id(member);
    added.set_weight(weight);
  }
  return group;
}

EntryOf::EntryOf(const Pipeline& pipeline, const std::string& table)
    : pipeline_(pipeline), table_(pipeline.table(table)) {
  entry_.set_table_id(table_.preamble().id());
}

p4::v1::FieldMatch& EntryOf::match(const std::string& field) {
  for (const auto& candidate : table_.match_fields()) {
    if (candidate.name() != field) continue;
    p4::v1::FieldMatch& match = *entry_.add_match();
    match.set_field_id(candidate.id());
    return match;
  }
  throw std::out_of_range("table " + table_.preamble().name() + " has no field " + field);
}

EntryOf& EntryOf::exact(const std::string& field, uint64_t value) {
  return exactBytes(field, canonicalBytes(value));
}

EntryOf& EntryOf::exactBytes(const std::string& field, const std::string& value) {
  match(field).mutable_exact()->set_value(value);
  return *this;
}

EntryOf& EntryOf::lpm(const std::string& field, uint64_t value, int prefixLength) {
  auto& lpm = *match(field).mutable_lpm();
  lpm.set_value(canonicalBytes(value));
  lpm.set_prefix_len(prefixLength);
  return *this;
}

EntryOf& EntryOf::ternary(const std::string& field, uint64_t value, uint64_t mask) {
  auto& ternary = *match(field).mutable_ternary();
  ternary.set_value(canonicalBytes(value));
  ternary.set_mask(canonicalBytes(mask));
  return *this;
}

EntryOf& EntryOf::priority(int priority) {
  entry_.set_priority(priority);
  return *this;
}

EntryOf& EntryOf::action(const std::string& name, const std::map<std::string, uint64_t>& params) {
  *entry_.mutable_action()->mutable_action() = actionOf(pipeline_, name, params);
  return *this;
}

EntryOf& EntryOf::member(uint32_t id) {
  entry_.mutable_action()->set_action_profile_member_id(id);
  return *this;
}

EntryOf& EntryOf::group(uint32_t id) {
  entry_.mutable_action()->set_action_profile_group_id(id);
  return *this;
}

EntryOf& EntryOf::oneShot() {
  entry_.mutable_action()->mutable_action_profile_action_set();
  return *this;
}

EntryOf& EntryOf::oneOf(const std::string& action, const std::map<std::string, uint64_t>& params,
                        int weight) {
  auto& element =
      *entry_.mutable_action()->mutable_action_profile_action_set()->add_action_profile_actions();
  *element.mutable_action() = actionOf(pipeline_, action, params);
  element.set_weight(weight);
  return *this;
}

EntryOf& EntryOf::meter(int64_t cir, int64_t cburst, int64_t pir, int64_t pburst) {
  auto& config = *entry_.mutable_meter_config();
  config.set_cir(cir);
  config.set_cburst(cburst);
  config.set_pir(pir);
  config.set_pburst(pburst);
  return *this;
}

EntryOf& EntryOf::metadata(const std::string& bytes) {
  entry_.set_metadata(bytes);
  return *this;
}

}  // namespace TestSupport
