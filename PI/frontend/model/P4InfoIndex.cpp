// Compiles a P4Info into plans, and refuses a P4Info that cannot be realised.
#include "PI/frontend/model/P4InfoIndex.h"

#include <algorithm>
#include <cstring>

#include "PI/frontend/base/ByteString.h"
#include "PI/frontend/base/Refusal.h"
#include "PI/frontends/proto/p4info_fault.h"
#include "PI/frontends/proto/translation_tables.h"
#include "access/Objects.h"

namespace pi::fe::proto {

namespace config = p4::config::v1;

namespace {

constexpr int32_t kMaxBits = 1 << 16;  // bounds the size of keys

constexpr char kTable[] = "table";
constexpr char kAction[] = "action";
constexpr char kProfile[] = "action profile";
constexpr char kDirectCounter[] = "direct counter";
constexpr char kDirectMeter[] = "direct meter";

// The name of no role is that of the default role: a policy that gives each role its own objects
// would take the object for one of everybody without a role.
void requireRoleNames(const char* kind, const config::Preamble& preamble) {
  for (const Access::Annotation& annotation : Access::annotationsOf(preamble)) {
    if (annotation.name != Access::roleAnnotation || !annotation.value.empty()) continue;
    refuse(code::invalidArgument, "P4Info: ", kind, " ", preamble.name(), " has the annotation @",
           Access::roleAnnotation, " without the name of a role; write @", Access::roleAnnotation,
           "(\"NAME\"), or leave it out");
  }
}

std::string idText(uint32_t id) { return absl::StrCat("0x", absl::Hex(id, absl::kZeroPad8)); }

uint32_t checkedBits(int32_t bits, const std::string& owner, const std::string& name) {
  if (bits < 0 || bits > kMaxBits) {
    refuse(code::invalidArgument, "P4Info: ", owner, ": ", name, " is ", bits,
           " bits wide; the width must be from 1 to ", kMaxBits);
  }
  return static_cast<uint32_t>(bits);
}

MatchKind matchKind(const config::MatchField& field, const std::string& table) {
  if (field.match_case() == config::MatchField::kOtherMatchType) return MatchKind::other;
  switch (field.match_type()) {
    case config::MatchField::EXACT:
      return MatchKind::exact;
    case config::MatchField::LPM:
      return MatchKind::lpm;
    case config::MatchField::TERNARY:
      return MatchKind::ternary;
    case config::MatchField::RANGE:
      return MatchKind::range;
    case config::MatchField::OPTIONAL:
      return MatchKind::optional;
    default:
      refuse(code::invalidArgument, "P4Info: table ", table, ": field ", field.name(),
             " has the unknown match type ", static_cast<int>(field.match_type()));
  }
}

// The program's default action as we send it: values in their shortest form.
p4::v1::Action defaultActionOf(const ActionPlan& action, const config::TableActionCall& call,
                               const std::string& table) {
  p4::v1::Action result;
  result.set_action_id(action.id);
  for (const auto& argument : call.arguments()) {
    const ParamPlan* param = action.param(argument.param_id());
    const bool isName = param != nullptr && param->names != nullptr;
    if (param == nullptr || (!isName && !fits(argument.value(), param->bits))) {
      refuse(code::invalidArgument, "P4Info: the default of table ", table, ": argument ",
             argument.param_id(), " of ", action.name, " does not fit the action's parameters");
    }
    auto* sent = result.add_params();
    sent->set_param_id(param->id);
    if (isName) {
      sent->set_value(argument.value());
      continue;
    }
    setShortest(reinterpret_cast<const uint8_t*>(argument.value().data()), argument.value().size(),
                sent->mutable_value());
  }
  return result;
}

// Counters whose unit is not stated count both.
DirectCounterPlan counterPlan(const config::DirectCounter& counter) {
  const auto unit = counter.spec().unit();
  if (!config::CounterSpec::Unit_IsValid(unit)) {
    refuse(code::invalidArgument, "P4Info: direct counter ", counter.preamble().name(),
           " has the unknown unit ", static_cast<int>(unit));
  }
  return {counter.preamble().id(), unit != config::CounterSpec::PACKETS,
          unit != config::CounterSpec::BYTES};
}

DirectMeterPlan meterPlan(const config::DirectMeter& meter) {
  const auto& spec = meter.spec();
  if (!config::MeterSpec::Unit_IsValid(spec.unit()) ||
      !config::MeterSpec::Type_IsValid(spec.type())) {
    refuse(code::invalidArgument, "P4Info: direct meter ", meter.preamble().name(),
           " has an unknown unit or type");
  }
  return {meter.preamble().id(), static_cast<DirectMeterPlan::Unit>(spec.unit()), spec.type()};
}

bool isPort(const config::ControllerPacketMetadata::Metadata& field) {
  return field.name().ends_with("egress_port") || field.name().ends_with("ingress_port");
}

bool hasPort(const config::ControllerPacketMetadata& header) {
  return std::ranges::any_of(header.metadata(), isPort);
}

bool usesPriority(MatchKind kind) {
  return kind == MatchKind::ternary || kind == MatchKind::range || kind == MatchKind::optional;
}

}  // namespace

P4InfoIndex::P4InfoIndex(const config::P4Info& p4Info, const pi_abilities_t& abilities)
    : abilities_(abilities) {
  if (abilities_.strings != 0) namedTypesAre(p4Info);
  const config::P4Info named = abilities_.strings != 0 ? with_translation_tables(p4Info) : p4Info;
  const config::P4Info all =
      abilities_.entities != 0 ? with_entity_tables(named, abilities_.watch_ports != 0) : named;
  doIndexObjects(all);
  doCheckDirectResources(p4Info);
  for (const auto& action : all.actions()) {
    actions_[action.preamble().id()] = actionPlan(action);
  }
  profilesAre(p4Info);
  tables_.reserve(p4Info.tables_size());
  for (const auto& table : all.tables()) {
    auto plan = tablePlan(p4Info, table);
    if (NamedType* type = namedType(plan->id)) {
      type->table = std::move(plan);
      continue;
    }
    const bool isPrograms = tables_.size() < static_cast<size_t>(p4Info.tables_size());
    auto& tables = isPrograms ? tables_ : entityTables_;
    tables.push_back(std::move(plan));
    tableById_[table.preamble().id()] = tables.back().get();
  }
  if (abilities_.default_actions != 0) {
    defaultEntriesAre(tables_);
    defaultEntriesAre(entityTables_);
  }
  tablesOfProfilesAre(p4Info);
  if (abilities_.default_resources != 0) resourcesOfDefaultsAre();
  if (abilities_.entities != 0) entitiesAre(p4Info);
  if (abilities_.watch_ports != 0) watchPortsAre(p4Info);
  usesOfNamesAre();
}

// The plans of their tables come with those of others.
void P4InfoIndex::namedTypesAre(const config::P4Info& p4Info) {
  for (const auto& [type, tableId] : translation_tables(p4Info)) {
    namedTypes_.push_back(std::make_unique<NamedType>(type));
    namedTypes_.back()->table = std::make_unique<TablePlan>();
    namedTypes_.back()->table->id = tableId;
  }
}

// A program has a handful of them.
NamedType* P4InfoIndex::namedType(uint32_t tableId) const {
  for (const auto& type : namedTypes_) {
    if (type->table->id == tableId) return type.get();
  }
  return nullptr;
}

Dictionary* P4InfoIndex::names(const std::string& type) const {
  for (const auto& one : namedTypes_) {
    if (one->names.type() == type) return &one->names;
  }
  return nullptr;
}

// Of a field or parameter; null: its values are no names.
template <typename Value>
Dictionary* P4InfoIndex::namesOf(const Value& value) const {
  const bool isName =
      std::ranges::find(value.annotations(), kNameAnnotation) != value.annotations().end();
  return isName ? names(value.type_name().name()) : nullptr;
}

// The headers of packets tell the type of ports.
Dictionary* P4InfoIndex::portNames(const config::P4Info& p4Info) const {
  for (const auto& header : p4Info.controller_packet_metadata()) {
    for (const auto& field : header.metadata()) {
      Dictionary* type = isPort(field) ? names(field.type_name().name()) : nullptr;
      if (type != nullptr) return type;
    }
  }
  return nullptr;
}

void P4InfoIndex::usesOfNamesAre() {
  const auto hasNames = [](const TablePlan& table) {
    return std::ranges::any_of(table.fields,
                               [](const FieldPlan& field) { return field.names != nullptr; });
  };
  const auto mayUse = [](const ActionUser& user) {
    return std::ranges::any_of(user.actions, [](const ActionUse& use) {
      return std::ranges::any_of(use.action->params,
                                 [](const ParamPlan& param) { return param.names != nullptr; });
    });
  };
  for (const auto& table : tables_) {
    const bool watchesNames = table->profile != nullptr && table->profile->ports != nullptr;
    table->usesNames = mayUse(*table) || hasNames(*table) || watchesNames;
    if (table->defaultEntry) table->defaultEntry->usesNames = mayUse(*table);
  }
  for (const auto& profile : profiles_) {
    profile->usesNames = mayUse(*profile) || profile->ports != nullptr;
  }
  for (const auto& table : entityTables_) {
    const TablePlan* list = table->entity != nullptr ? table->entity->list : nullptr;
    table->usesNames = list != nullptr && (hasNames(*list) || table->entity->ports != nullptr);
  }
}

const TablePlan* P4InfoIndex::table(uint32_t id) const {
  const auto found = tableById_.find(id);
  return found == tableById_.end() ? nullptr : found->second;
}

const ActionPlan* P4InfoIndex::action(uint32_t id) const {
  const auto found = actions_.find(id);
  return found == actions_.end() ? nullptr : found->second.get();
}

// A program has a handful of them.
const ProfilePlan* P4InfoIndex::profile(uint32_t id) const {
  for (const auto& profile : profiles_) {
    if (profile->id == id) return profile.get();
  }
  return nullptr;
}

const EntityPlan* P4InfoIndex::entity(EntityKind kind, uint32_t id) const {
  for (const auto& entity : entities_) {
    if (entity->kind == kind && entity->id == id) return entity.get();
  }
  return nullptr;
}

std::optional<int64_t> P4InfoIndex::arraySize(const char* kind, uint32_t id) const {
  if (!isKind(id, kind)) return std::nullopt;
  return objects_.at(id).size;
}

std::string P4InfoIndex::objectText(uint32_t id) const {
  const auto found = objects_.find(id);
  if (found == objects_.end()) return absl::StrCat(idText(id), ", which is not in the P4Info");
  return absl::StrCat(found->second.kind, " ", found->second.name);
}

void P4InfoIndex::objectIs(const char* kind, const config::Preamble& preamble, int64_t size) {
  if (preamble.id() == 0) {
    refuse(code::invalidArgument, "P4Info: ", kind, " ", preamble.name(), " has the id 0");
  }
  requireRoleNames(kind, preamble);
  const auto [other, isNew] =
      objects_.try_emplace(preamble.id(), Object{kind, preamble.name(), size});
  if (isNew) return;
  refuse(code::invalidArgument, "P4Info: ", kind, " ", preamble.name(), " has the id ",
         idText(preamble.id()), " of ", other->second.kind, " ", other->second.name);
}

void P4InfoIndex::doIndexObjects(const config::P4Info& p4Info) {
  for (const auto& object : p4Info.tables()) objectIs(kTable, object.preamble());
  for (const auto& object : p4Info.actions()) objectIs(kAction, object.preamble());
  for (const auto& object : p4Info.action_profiles()) objectIs(kProfile, object.preamble());
  for (const auto& object : p4Info.counters()) {
    objectIs("counter", object.preamble(), object.size());
  }
  for (const auto& object : p4Info.direct_counters()) objectIs(kDirectCounter, object.preamble());
  for (const auto& object : p4Info.meters()) objectIs("meter", object.preamble(), object.size());
  for (const auto& object : p4Info.direct_meters()) objectIs(kDirectMeter, object.preamble());
  for (const auto& object : p4Info.controller_packet_metadata()) {
    objectIs("controller header", object.preamble());
  }
  for (const auto& object : p4Info.value_sets()) objectIs("value set", object.preamble());
  for (const auto& object : p4Info.registers()) {
    objectIs("register", object.preamble(), object.size());
  }
  for (const auto& object : p4Info.digests()) objectIs("digest", object.preamble());
  for (const auto& type : p4Info.externs()) {
    for (const auto& object : type.instances()) objectIs("extern", object.preamble());
  }
}

void P4InfoIndex::doCheckDirectResources(const config::P4Info& p4Info) const {
  for (const auto& counter : p4Info.direct_counters()) {
    if (counter.direct_table_id() == 0) continue;  // a table may name it still
    requireKind(counter.direct_table_id(), kTable,
                absl::StrCat("direct counter ", counter.preamble().name()));
  }
  for (const auto& meter : p4Info.direct_meters()) {
    if (meter.direct_table_id() == 0) continue;
    requireKind(meter.direct_table_id(), kTable,
                absl::StrCat("direct meter ", meter.preamble().name()));
  }
}

bool P4InfoIndex::isKind(uint32_t id, const char* kind) const {
  const auto found = objects_.find(id);
  return found != objects_.end() && std::strcmp(found->second.kind, kind) == 0;
}

void P4InfoIndex::requireKind(uint32_t id, const char* kind, const std::string& user) const {
  if (isKind(id, kind)) return;
  const bool isOther = objects_.contains(id);
  refuse(code::invalidArgument, "P4Info: ", user, " refers to ", kind, " ", idText(id),
         isOther ? ", which is " : ", which is not there",
         isOther ? objectText(id) : std::string());
}

std::unique_ptr<ActionPlan> P4InfoIndex::actionPlan(const config::Action& action) const {
  auto plan = std::make_unique<ActionPlan>();
  plan->id = action.preamble().id();
  plan->name = action.preamble().name();
  for (const auto& param : action.params()) {
    for (const ParamPlan& other : plan->params) {
      if (other.id == param.id()) {
        refuse(code::invalidArgument, "P4Info: action ", plan->name, ": parameters ", other.name,
               " and ", param.name(), " have the same id ", param.id());
      }
    }
    const uint32_t bits = checkedBits(param.bitwidth(), "action " + plan->name, param.name());
    if (bits == 0) {
      plan->unsupported = absl::StrCat("action ", plan->name, ": parameter ", param.name(),
                                       " has no bit width; translated strings are not supported");
    }
    const auto bytes = static_cast<uint32_t>(bytesOf(bits));
    plan->params.push_back(
        {param.id(), param.name(), bits, bytes, plan->dataBytes, namesOf(param)});
    plan->dataBytes += bytes;
  }
  return plan;
}

std::unique_ptr<TablePlan> P4InfoIndex::tablePlan(const config::P4Info& p4Info,
                                                  const config::Table& table) {
  auto plan = std::make_unique<TablePlan>();
  plan->id = table.preamble().id();
  plan->name = table.preamble().name();
  if (!config::Table::IdleTimeoutBehavior_IsValid(table.idle_timeout_behavior())) {
    refuse(code::invalidArgument, "P4Info: table ", plan->name,
           " has the unknown idle time-out behavior ",
           static_cast<int>(table.idle_timeout_behavior()));
  }
  plan->hasIdleTimeout = table.idle_timeout_behavior() == config::Table::NOTIFY_CONTROL;
  plan->isConst = table.is_const_table();
  plan->hasInitialEntries = table.has_initial_entries();
  for (const auto& field : table.match_fields()) fieldPlanIs(plan.get(), field);
  actionUsesAre(plan.get(), table);
  defaultActionIs(plan.get(), table);
  directResourcesAre(plan.get(), p4Info, table);
  if (table.implementation_id() != 0) profileOfTableIs(plan.get(), table.implementation_id());
  return plan;
}

void P4InfoIndex::fieldPlanIs(TablePlan* plan, const config::MatchField& field) const {
  for (const FieldPlan& other : plan->fields) {
    if (other.id == field.id()) {
      refuse(code::invalidArgument, "P4Info: table ", plan->name, ": fields ", other.name, " and ",
             field.name(), " have the same id ", field.id());
    }
  }
  FieldPlan added;
  added.id = field.id();
  added.name = field.name();
  added.kind = matchKind(field, plan->name);
  added.bits = checkedBits(field.bitwidth(), "table " + plan->name, field.name());
  added.bytes = static_cast<uint32_t>(bytesOf(added.bits));
  added.offset = plan->keyBytes;
  added.takesAll = abilities_.fields != 0;
  added.names = namesOf(field);
  plan->keyBytes += static_cast<uint32_t>(added.keyBytes());
  plan->needsPriority |= usesPriority(added.kind);
  if (added.kind == MatchKind::other) {
    plan->unsupported = absl::StrCat("field ", added.name, " is matched as '",
                                     field.other_match_type(), "', which is not supported");
  } else if (added.bits == 0) {
    plan->unsupported = absl::StrCat("field ", added.name,
                                     " has no bit width; translated strings are not supported");
  }
  plan->fields.push_back(std::move(added));
}

void P4InfoIndex::actionUsesAre(TablePlan* plan, const config::Table& table) const {
  for (const auto& ref : table.action_refs()) {
    requireKind(ref.id(), kAction, "table " + plan->name);
    if (!config::ActionRef::Scope_IsValid(ref.scope())) {
      refuse(code::invalidArgument, "P4Info: table ", plan->name, " uses ", objectText(ref.id()),
             " in the unknown scope ", static_cast<int>(ref.scope()));
    }
    plan->actions.push_back({ref.id(), static_cast<ActionScope>(ref.scope()), action(ref.id())});
  }
}

void P4InfoIndex::defaultActionIs(TablePlan* plan, const config::Table& table) const {
  plan->constDefaultActionId = table.const_default_action_id();
  const auto& initial = table.initial_default_action();
  for (const uint32_t id : {plan->constDefaultActionId, initial.action_id()}) {
    if (id != 0) requireKind(id, kAction, "the default of table " + plan->name);
  }
  if (initial.action_id() != 0) {
    plan->defaultAction = defaultActionOf(*action(initial.action_id()), initial, plan->name);
    return;
  }
  if (plan->constDefaultActionId != 0) {
    plan->defaultAction.set_action_id(plan->constDefaultActionId);
    return;
  }
  for (const ActionUse& use : plan->actions) {
    if (use.action->name == "NoAction") plan->defaultAction.set_action_id(use.id);
  }
}

void P4InfoIndex::defaultEntriesAre(const std::vector<std::unique_ptr<TablePlan>>& tables) {
  for (const auto& table : tables) {
    if (table->constDefaultActionId != 0 || table->profile != nullptr) continue;
    auto plan = defaultEntryPlan(*table);
    if (!tableById_.try_emplace(plan->id, plan.get()).second) continue;  // the id is a table's own
    table->defaultEntry = std::move(plan);
  }
}

std::unique_ptr<TablePlan> P4InfoIndex::defaultEntryPlan(const TablePlan& table) {
  auto plan = std::make_unique<TablePlan>();
  plan->id = PI_DEFAULT_ENTRY_TABLE(table.id);
  plan->name = table.name;
  plan->isDefaultEntry = true;
  FieldPlan key;
  key.bits = 8;
  key.bytes = 1;
  plan->fields.push_back(std::move(key));
  plan->keyBytes = 1;
  plan->actions = table.actions;
  return plan;
}

void P4InfoIndex::resourcesOfDefaultsAre() {
  for (const auto& table : tables_) {
    if (!table->defaultEntry) continue;
    table->defaultEntry->counter = table->counter;
    table->defaultEntry->meter = table->meter;
    table->defaultEntry->defaultAction = table->defaultAction;
  }
}

EntityPlan* P4InfoIndex::entityIs(EntityKind kind, const config::Preamble& preamble, int64_t size) {
  const auto planOf = [this](uint32_t tableId) -> TablePlan* {
    for (const auto& table : entityTables_) {
      if (table->id == tableId) return table.get();
    }
    return nullptr;
  };
  auto entity = std::make_unique<EntityPlan>();
  entity->kind = kind;
  entity->id = preamble.id();
  entity->text = entityKindText(kind);
  if (entity->id != 0) absl::StrAppend(&entity->text, " ", preamble.name());
  entity->size = size;
  TablePlan* table = planOf(entityTableId(kind, entity->id));
  TablePlan* list = planOf(entityListTableId(kind, entity->id));
  for (TablePlan* one : {table, list, table == nullptr ? nullptr : table->defaultEntry.get()}) {
    if (one != nullptr) one->entity = entity.get();
  }
  entity->table = table;
  entity->list = list;
  entities_.push_back(std::move(entity));
  return entities_.back().get();
}

void P4InfoIndex::entitiesAre(const config::P4Info& p4Info) {
  for (const EntityKind kind : {EntityKind::multicastGroup, EntityKind::cloneSession}) {
    entityIs(kind, {})->ports = portNames(p4Info);
  }
  for (const auto& counter : p4Info.counters()) {
    EntityPlan* plan = entityIs(EntityKind::counter, counter.preamble(), counter.size());
    plan->countsBytes = counter.spec().unit() != config::CounterSpec::PACKETS;
    plan->countsPackets = counter.spec().unit() != config::CounterSpec::BYTES;
  }
  for (const auto& meter : p4Info.meters()) {
    entityIs(EntityKind::meter, meter.preamble(), meter.size())->meterType = meter.spec().type();
  }
  for (const auto& array : p4Info.registers()) {
    EntityPlan* plan = entityIs(EntityKind::registerArray, array.preamble(), array.size());
    plan->isBool = array.type_spec().has_bool_();
  }
  for (const auto& set : p4Info.value_sets()) {
    entityIs(EntityKind::valueSet, set.preamble(), set.size());
  }
  for (const auto& digest : p4Info.digests()) entityIs(EntityKind::digest, digest.preamble());
  for (const auto& table : tables_) {
    table->setsCounters = table->counter.has_value();
    if (table->defaultEntry)
      table->defaultEntry->setsCounters = table->defaultEntry->counter.has_value();
    if (!table->hasIdleTimeout) continue;
    config::Preamble preamble;
    preamble.set_id(table->id);
    preamble.set_name(table->name);
    table->idleTimeouts = entityIs(EntityKind::idleTimeout, preamble)->table;
  }
}

void P4InfoIndex::watchPortsAre(const config::P4Info& p4Info) {
  Dictionary* const ports = portNames(p4Info);
  const bool anyPort = std::ranges::any_of(p4Info.controller_packet_metadata(), hasPort);
  for (const auto& profile : profiles_) {
    if (!profile->withSelector) continue;
    config::Preamble preamble;
    preamble.set_id(profile->id);
    preamble.set_name(profile->name);
    profile->watchPorts = entityIs(EntityKind::watchPort, preamble)->table;
    profile->ports = ports;
    profile->portsAreNumbers = ports == nullptr && (anyPort || !profile->portsAreStrings);
  }
}

void P4InfoIndex::directResourcesAre(TablePlan* plan, const config::P4Info& p4Info,
                                     const config::Table& table) const {
  const std::string user = "table " + plan->name;
  for (const uint32_t id : table.direct_resource_ids()) {
    const bool isMeter = isKind(id, kDirectMeter);
    if (!isMeter && !isKind(id, kDirectCounter)) continue;  // of a kind that we do not serve
    if (isMeter ? plan->meter.has_value() : plan->counter.has_value()) {
      refuse(code::invalidArgument, "P4Info: ", user, " has ", objectText(id),
             " and another one of that kind; it can have one");
    }
    for (const auto& counter : p4Info.direct_counters()) {
      if (counter.preamble().id() == id) plan->counter = counterPlan(counter);
    }
    for (const auto& meter : p4Info.direct_meters()) {
      if (meter.preamble().id() == id) plan->meter = meterPlan(meter);
    }
  }
}

std::string p4info_fault(const config::P4Info& p4Info) {
  try {
    const P4InfoIndex index(p4Info);
    return {};
  } catch (const Refusal& refusal) {
    return refusal.message();
  }
}

}  // namespace pi::fe::proto
