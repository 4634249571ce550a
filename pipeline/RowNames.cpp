#include "pipeline/RowNames.h"

#include <map>

#include "p4/config/v1/p4info.pb.h"
#include "pipeline/DeviceConfig.h"
#include "pipeline/P4InfoLookup.h"
#include "platform/vela/Json.h"

namespace Pipeline {
namespace {

struct Named {
  std::string kind;
  std::string name;
  uint32_t id = 0;
  const p4::config::v1::ValueSet* members = nullptr;
};

// By the names that the tables of such objects have in the extended P4Info.
class EntityNames {
 public:
  explicit EntityNames(const p4::config::v1::P4Info& p4Info) {
    for (const auto& counter : p4Info.counters()) add("counter", counter.preamble());
    for (const auto& meter : p4Info.meters()) add("meter", meter.preamble());
    for (const auto& array : p4Info.registers()) add("register", array.preamble());
    for (const auto& digest : p4Info.digests()) add("digest", digest.preamble());
    for (const auto& table : p4Info.tables()) add("idle_timeout", table.preamble());
    for (const auto& set : p4Info.value_sets()) {
      add("value_set", set.preamble());
      add("value_set", set.preamble(), ".member", &set);
    }
    for (const auto& profile : p4Info.action_profiles()) {
      const auto& preamble = profile.preamble();
      const std::string& alias = preamble.alias().empty() ? preamble.name() : preamble.alias();
      named_[alias + ".watch"] = {"watch", preamble.name(), preamble.id()};
    }
    for (const std::string kind : {"multicast_group", "clone_session"}) {
      for (const std::string part : {"", ".replica"}) named_["pre." + kind + part] = {kind + part};
    }
  }

  const Named* find(const std::string& table) const {
    const auto found = named_.find(table);
    return found == named_.end() ? nullptr : &found->second;
  }

 private:
  void add(const std::string& kind, const p4::config::v1::Preamble& preamble,
           const std::string& part = "", const p4::config::v1::ValueSet* members = nullptr) {
    const std::string& alias = preamble.alias().empty() ? preamble.name() : preamble.alias();
    named_[kind + "." + alias + part] = {kind + part, preamble.name(), preamble.id(), members};
  }

  std::map<std::string, Named> named_;
};

Named profileNamed(const P4InfoLookup& index, const DeviceTable& table) {
  const auto* profile = index.actionProfile(table.id);
  const char* kind = table.kind == TableKind::member ? "members" : "groups";
  return {kind, profile ? profile->preamble().name() : "", table.id};
}

Named namedBy(const P4InfoLookup& own, const P4InfoLookup& index, const EntityNames& entities,
              const DeviceTable& table) {
  if (table.kind == TableKind::member || table.kind == TableKind::group) {
    return profileNamed(index, table);
  }
  const auto* info = index.table(table.id);
  if (info == nullptr) return {"other", "", table.id};
  const bool isDefault = table.kind == TableKind::defaultEntry;
  if (const Named* entity = entities.find(info->preamble().name())) {
    Named named = *entity;
    if (isDefault) named.kind += ".default";
    return named;
  }
  if (own.table(table.id) == nullptr) return {"other", info->preamble().name(), table.id};
  return {isDefault ? "default" : "entries", info->preamble().name(), table.id};
}

}  // namespace

std::string rowNames(const p4::config::v1::P4Info& p4Info, const DeviceConfig& config) {
  const P4InfoLookup own(p4Info);
  const P4InfoLookup index(p4Info, config.extensions);
  const EntityNames entities(p4Info);
  const Vela::Json json(cJSON_CreateObject());
  cJSON* tables = Vela::addArray(json.get(), "tables");
  for (const DeviceTable& table : config.tables) {
    const Named named = namedBy(own, index, entities, table);
    cJSON* element = Vela::addObjectTo(tables);
    Vela::addString(element, "rows", table.name);
    Vela::addString(element, "kind", named.kind);
    Vela::addString(element, "name", named.name);
    Vela::addNumber(element, "id", named.id);
    if (named.members == nullptr) continue;
    cJSON* bits = Vela::addArray(element, "bits");
    for (const auto& field : named.members->match()) {
      cJSON_AddItemToArray(bits, cJSON_CreateNumber(field.bitwidth()));
    }
  }
  cJSON* actions = Vela::addArray(json.get(), "actions");
  for (const auto& action : index.p4Info().actions()) {
    cJSON* element = Vela::addObjectTo(actions);
    Vela::addNumber(element, "id", action.preamble().id());
    Vela::addString(element, "name", action.preamble().name());
  }
  return Vela::jsonBytes(*json);
}

}  // namespace Pipeline
