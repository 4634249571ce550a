// Collects the content of 'korvel pipeline show'.
#include "cli/pipeline/PipelineView.h"

#include <algorithm>
#include <map>
#include <optional>
#include <utility>

#include "p4/config/v1/p4info.pb.h"
#include "p4/v1/p4runtime.pb.h"
#include "pipeline/DeviceConfig.h"
#include "pipeline/EntryNames.h"
#include "pipeline/EntryText.h"
#include "pipeline/Files.h"
#include "pipeline/Finding.h"
#include "pipeline/Names.h"
#include "pipeline/P4InfoLookup.h"
#include "pipeline/PipelineCheck.h"
#include "pipeline/ProfileCheck.h"
#include "pipeline/QueryCheck.h"
#include "pipeline/TypeCheck.h"

namespace Cli {

using namespace Pipeline;

namespace {

using p4::config::v1::MatchField;

void boolItemIs(cJSON* object, const char* key, bool value) {
  cJSON_AddBoolToObject(object, key, value ? 1 : 0);
}

std::string matchKindText(const MatchField& field) {
  if (field.match_case() == MatchField::kOtherMatchType) return field.other_match_type();
  if (!MatchField::MatchType_IsValid(field.match_type())) return "unknown";
  return lowered(MatchField::MatchType_Name(field.match_type()));
}

void addPairs(cJSON* object, const char* key,
              const std::vector<std::pair<std::string, std::string>>& pairs) {
  cJSON* item = cJSON_AddObjectToObject(object, key);
  for (const auto& [name, value] : pairs) Vela::addString(item, name.c_str(), value);
}

class ViewMaker {
 public:
  ViewMaker(const p4::v1::SetForwardingPipelineConfigRequest& request, const std::string& path)
      : request_(request), p4Info_(request.config().p4info()), index_(p4Info_), root_(newRoot()) {
    Findings findings;
    checkP4Info(index_, &findings);
    requireNone(findings, path);
    const auto json = deviceData(request, &findings);
    requireNone(findings, path);
    auto config = parseDeviceConfig(*json, &findings);
    if (!config) requireNone(findings, path);
    config_ = *std::move(config);
    names_ = namesIn(config_, p4Info_);
    all_.emplace(p4Info_, config_.extensions);
    layout_ = pipelineLayout(*all_, config_.extensions, &findings);
    types_ = checkTypes(config_, &findings);
    const Verdict verdict = checkPipeline(request);
    refused_ = verdict.refused;
    if (verdict.findings.hasErrors()) refused_.tables = layout_.refused;  // the rest was not tried
    for (const DeviceTable& table : config_.tables) {
      device_.emplace(std::make_pair(table.kind, table.id), table);
    }
  }

  Vela::Json run() {
    addHead();
    cJSON* tables = Vela::addArray(root_.get(), "tables");
    for (const auto& table : p4Info_.tables()) addTable(table, Vela::addObjectTo(tables));
    cJSON* profiles = Vela::addArray(root_.get(), "action_profiles");
    for (const auto& profile : p4Info_.action_profiles())
      addProfile(profile, Vela::addObjectTo(profiles));
    addEntityTables(Vela::addArray(root_.get(), "entity_tables"));
    addEntityEntries(Vela::addArray(root_.get(), "entity_entries"));
    cJSON* queries = Vela::addArray(root_.get(), "queries");
    for (const DeviceQuery& query : config_.queries) addQueryView(query, queries);
    cJSON* headers = Vela::addArray(root_.get(), "packet_headers");
    for (const auto& header : p4Info_.controller_packet_metadata()) {
      cJSON* item = Vela::addObjectTo(headers);
      Vela::addString(item, "name", header.preamble().name());
      addFields(header.metadata(), Vela::addArray(item, "fields"));
    }
    return std::move(root_);
  }

 private:
  static Vela::Json newRoot() { return Vela::Json(cJSON_CreateObject()); }

  static void requireNone(const Findings& findings, const std::string& path) {
    const Finding* error = findings.firstError();
    if (error == nullptr) return;
    throw PipelineError(path + ": " + findingText(*error) + " (see 'korvel pipeline check')");
  }

  void addHead() {
    // Device ids have 64 bits, more than a JSON number holds exactly.
    Vela::addString(root_.get(), "device_id", std::to_string(request_.device_id()));
    if (request_.has_election_id()) {
      Vela::addString(root_.get(), "election_id",
                      std::to_string(request_.election_id().high()) + ':' +
                          std::to_string(request_.election_id().low()));
    }
    Vela::addString(root_.get(), "name", p4Info_.pkg_info().name());
    Vela::addString(root_.get(), "version", p4Info_.pkg_info().version());
    Vela::addString(root_.get(), "arch", p4Info_.pkg_info().arch());
  }

  void addQueryView(const DeviceQuery& query, cJSON* queries) {
    addQuery(query, queries);
    cJSON* object = cJSON_GetArrayItem(queries, cJSON_GetArraySize(queries) - 1);
    const std::string method = queryMethodText(query, config_, types_);
    Vela::addString(object, "kept",
                    method.empty() ? "it is not valid; see 'korvel pipeline check'" : method);
  }

  void addTable(const p4::config::v1::Table& table, cJSON* object) {
    const uint32_t id = table.preamble().id();
    Vela::addString(object, "name", table.preamble().name());
    Vela::addNumber(object, "id", id);
    Vela::addNumber(object, "size", static_cast<double>(table.size()));
    const auto device = device_.find({TableKind::match, id});
    const auto refused = refused_.tables.find({TableKind::match, id});
    const bool programmable = refused == refused_.tables.end() && device != device_.end();
    boolItemIs(object, "programmable", programmable);
    if (!programmable) {
      Vela::addString(object, "reason",
                      refused != refused_.tables.end() ? refused->second
                                                       : "it is not in the device configuration");
    } else {
      Vela::addString(object, "table", device->second.name);
    }
    boolItemIs(object, "constant", table.is_const_table());
    addMatchFields(table, Vela::addArray(object, "match_fields"));
    addActions(table.action_refs(), Vela::addArray(object, "actions"));
    boolItemIs(object, "direct_counter", index_.hasDirectCounter(table));
    boolItemIs(object, "direct_meter", index_.hasDirectMeter(table));
    if (const auto* profile = index_.actionProfile(table.implementation_id()))
      Vela::addString(object, "action_profile", profile->preamble().name());
    cJSON* entries = Vela::addArray(object, "constant_entries");
    if (programmable) addEntries(device->second, table, entries);
  }

  // Those that the program does not declare: of groups, cells, names and other entities.
  void addEntityTables(cJSON* names) {
    for (const TableLayout& layout : layout_.tables) {
      if (layout.kind != TableKind::match || index_.table(layout.id) != nullptr) continue;
      cJSON_AddItemToArray(names, cJSON_CreateString(layout.tableName.c_str()));
    }
  }

  // Names stand in the entries that have them.
  void addEntityEntries(cJSON* entities) {
    for (const auto& [ref, device] : device_) {
      const auto* table = all_->table(device.id);
      const bool isShown = device.kind == TableKind::match && table != nullptr &&
                           index_.table(device.id) == nullptr && !device.entries.empty() &&
                           !holdsNames(device.id);
      if (!isShown) continue;
      cJSON* object = Vela::addObjectTo(entities);
      Vela::addString(object, "table", device.name);
      addEntries(device, *table, Vela::addArray(object, "entries"));
    }
  }

  void addMatchFields(const p4::config::v1::Table& table, cJSON* fields) {
    const TableLayout* layout = layout_.table({TableKind::match, table.preamble().id()});
    for (int i = 0; i < table.match_fields_size(); ++i) {
      const MatchField& field = table.match_fields(i);
      cJSON* item = Vela::addObjectTo(fields);
      Vela::addString(item, "name", field.name());
      Vela::addNumber(item, "id", field.id());
      Vela::addNumber(item, "bitwidth", field.bitwidth());
      Vela::addString(item, "match", matchKindText(field));
      if (field.has_type_name()) Vela::addString(item, "type", field.type_name().name());
      for (const Slot& slot : layout == nullptr ? std::vector<Slot>{} : layout->slots) {
        if (slot.field != static_cast<size_t>(i)) continue;
        Vela::addString(item, "column", slot.name);
        Vela::addString(item, "column_type", slot.type);
        break;
      }
    }
  }

  template <typename ActionRefs>
  void addActions(const ActionRefs& refs, cJSON* actions) {
    for (const auto& ref : refs) {
      const p4::config::v1::Action& action = *index_.action(ref.id());
      cJSON* item = Vela::addObjectTo(actions);
      Vela::addString(item, "name", action.preamble().name());
      Vela::addNumber(item, "id", ref.id());
      if (ref.scope() == p4::config::v1::ActionRef::DEFAULT_ONLY)
        boolItemIs(item, "default_only", true);
      const auto refused = refused_.actions.find(ref.id());
      if (refused != refused_.actions.end()) Vela::addString(item, "reason", refused->second);
      addFields(action.params(), Vela::addArray(item, "params"));
    }
  }

  template <typename Fields>
  void addFields(const Fields& fields, cJSON* array) {
    for (const auto& field : fields) {
      cJSON* item = Vela::addObjectTo(array);
      Vela::addString(item, "name", field.name());
      Vela::addNumber(item, "id", field.id());
      Vela::addNumber(item, "bitwidth", field.bitwidth());
    }
  }

  void addEntries(const DeviceTable& device, const p4::config::v1::Table& table, cJSON* entries) {
    const TableLayout* layout = layout_.table({TableKind::match, device.id});
    for (const DeviceEntry& entry : device.entries) {
      cJSON* item = Vela::addObjectTo(entries);
      try {
        const EntryText text = entryText(entry, table, *layout, *all_, names_);
        addPairs(item, "match", text.match);
        Vela::addNumber(item, "priority", entry.priority);
        Vela::addString(item, "action", text.action);
        addPairs(item, "params", text.params);
      } catch (const PipelineError& e) {
        Vela::addString(item, "error", e.what());
      }
    }
  }

  void addProfile(const p4::config::v1::ActionProfile& profile, cJSON* object) {
    Vela::addString(object, "name", profile.preamble().name());
    Vela::addNumber(object, "id", profile.preamble().id());
    Vela::addNumber(object, "size", static_cast<double>(profile.size()));
    boolItemIs(object, "selector", profile.with_selector());
    if (profile.with_selector()) addSelector(profile, object);
    for (const auto& [key, kind] : {std::pair{"member_table", TableKind::member},
                                    std::pair{"group_table", TableKind::group}}) {
      const auto device = device_.find({kind, profile.preamble().id()});
      if (device != device_.end()) Vela::addString(object, key, device->second.name);
    }
    cJSON* tables = Vela::addArray(object, "tables");
    for (const uint32_t id : profile.table_ids())
      cJSON_AddItemToArray(tables, cJSON_CreateString(index_.table(id)->preamble().name().c_str()));
    // P4Runtime wants all tables of a profile to have the same actions.
    if (profile.table_ids().empty()) return;
    addActions(index_.table(profile.table_ids(0))->action_refs(),
               Vela::addArray(object, "actions"));
  }

  // The largest group that the agent will hold, even if the P4Info promises more.
  static void addSelector(const p4::config::v1::ActionProfile& profile, cJSON* object) {
    const int64_t size = profile.max_group_size();
    Vela::addNumber(
        object, "max_group_size",
        static_cast<double>(size > 0 ? std::min(size, maxGroupWeight) : maxGroupWeight));
    Vela::addString(object, "size_semantics",
                    profile.has_sum_of_members() ? "sum_of_members" : "sum_of_weights");
    if (profile.sum_of_members().max_member_weight() > 0)
      Vela::addNumber(object, "max_member_weight", profile.sum_of_members().max_member_weight());
  }

  const p4::v1::SetForwardingPipelineConfigRequest& request_;
  const p4::config::v1::P4Info& p4Info_;
  const P4InfoLookup index_;         // of the program
  std::optional<P4InfoLookup> all_;  // and of what extensions add
  NamesByNumber names_;
  Vela::Json root_;
  PipelineLayout layout_;
  Refused refused_;
  DeviceConfig config_;
  CompiledTypes types_;
  std::map<std::pair<TableKind, uint32_t>, DeviceTable> device_;
};

}  // namespace

Vela::Json pipelineView(const std::string& path,
                        const p4::v1::SetForwardingPipelineConfigRequest& request) {
  return ViewMaker(request, path).run();
}

}  // namespace Cli
