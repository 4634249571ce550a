// What is common to tables that are added to a P4Info.
#include "PI/frontend/model/AddedTables.h"

namespace pi::fe::proto {

namespace config = p4::config::v1;

absl::flat_hash_set<uint32_t> takenIds(const config::P4Info& p4Info) {
  absl::flat_hash_set<uint32_t> ids;
  const auto take = [&](const auto& objects) {
    for (const auto& object : objects) ids.insert(object.preamble().id());
  };
  take(p4Info.tables());
  take(p4Info.actions());
  take(p4Info.action_profiles());
  take(p4Info.counters());
  take(p4Info.direct_counters());
  take(p4Info.meters());
  take(p4Info.direct_meters());
  take(p4Info.controller_packet_metadata());
  take(p4Info.value_sets());
  take(p4Info.registers());
  take(p4Info.digests());
  for (const auto& type : p4Info.externs()) take(type.instances());
  return ids;
}

void nameIs(config::Preamble* preamble, uint32_t id, const std::string& name) {
  preamble->set_id(id);
  preamble->set_name(name);
  preamble->set_alias(name);
}

void addExactField(config::Table* table, const char* name, int32_t bits) {
  config::MatchField* field = table->add_match_fields();
  field->set_id(static_cast<uint32_t>(table->match_fields_size()));
  field->set_name(name);
  field->set_bitwidth(bits);
  field->set_match_type(config::MatchField::EXACT);
}

void addParam(config::Action* action, const char* name, int32_t bits) {
  config::Action::Param* param = action->add_params();
  param->set_id(static_cast<uint32_t>(action->params_size()));
  param->set_name(name);
  param->set_bitwidth(bits);
}

void addActionRef(config::Table* table, uint32_t actionId, config::ActionRef::Scope scope) {
  config::ActionRef* ref = table->add_action_refs();
  ref->set_id(actionId);
  ref->set_scope(scope);
}

}  // namespace pi::fe::proto
