// One element of a Read, checked against the P4Info.
#include "PI/frontend/read/Query.h"

#include "PI/frontend/base/Refusal.h"
#include "PI/frontend/check/CheckedUpdate.h"
#include "PI/frontend/check/DirectResourceCheck.h"
#include "PI/frontend/check/EntityCheck.h"
#include "PI/frontend/check/OtherEntityCheck.h"
#include "PI/frontend/store/EntityRows.h"
#include "PI/frontend/store/KeyCodec.h"
#include "PI/frontend/store/NameCodec.h"
#include "PI/frontend/store/ProfileObjects.h"

namespace pi::fe::proto {

using p4::v1::TableEntry;

namespace {

void requireNoFilter(const TableEntry& entry) {
  if (entry.match_size() == 0 && !entry.has_action() && entry.priority() == 0 &&
      entry.controller_metadata() == 0 && entry.metadata().empty()) {
    return;
  }
  refuse(code::invalidArgument, "a query for all tables (table id 0) takes no filter");
}

// The resources that the query wants beside the entry itself.
void checkWanted(const TablePlan& table, const TableEntry& entry) {
  if (entry.has_time_since_last_hit() && !table.hasIdleTimeout) {
    refuse(code::invalidArgument, "table ", table.name, ": its entries have no idle time-out");
  }
  if (entry.has_time_since_last_hit() && table.idleTimeouts == nullptr) {
    refuse(code::unimplemented, "table ", table.name, ": idle time-outs are not supported");
  }
  if (!entry.has_meter_counter_data() || !table.meter) return;
  refuse(code::unimplemented, "table ", table.name,
         ": reading meter_counter_data is not supported");
}

uint32_t checkedActionId(const TablePlan& table, const p4::v1::TableAction& action) {
  if (table.profile != nullptr) {
    refuse(code::invalidArgument, "table ", table.name, " is that of action profile ",
           table.profile->name, "; its entries cannot be picked by action");
  }
  if (!action.has_action()) {
    refuse(code::invalidArgument, "table ", table.name,
           ": entries are picked by action id only, not by member, group or action set");
  }
  const uint32_t id = action.action().action_id();
  if (table.actionUse(id) == nullptr) {
    refuse(code::invalidArgument, "table ", table.name, " has no action with the id 0x",
           absl::Hex(id, absl::kZeroPad8));
  }
  return id;
}

EntryForm wantedForm(const TableEntry& entry) {
  return static_cast<EntryForm>((entry.has_counter_data() ? 1 : 0) +
                                (entry.has_meter_config() ? 2 : 0) +
                                (entry.has_time_since_last_hit() ? 4 : 0));
}

Query defaultEntryQuery(const TablePlan& table, const TableEntry& entry) {
  if (entry.match_size() != 0 || entry.priority() != 0 || entry.idle_timeout_ns() != 0 ||
      entry.has_time_since_last_hit()) {
    refuse(code::invalidArgument, "table ", table.name,
           ": the default entry has neither match, priority nor idle time-out");
  }
  Query query;
  query.kind = Query::Kind::defaultEntry;
  query.table = &table;
  query.form = wantedForm(entry);
  return query;
}

void keyIs(Query* query, const TablePlan& table, const TableEntry& entry) {
  query->key = Entry::make(table.id, table.keyBytes, 0, 0);
  try {
    encodeKey(table, entry, query->key->keyData());
  } catch (const UnknownName&) {
    if (query->mustExist) throw;
    query->kind = Query::Kind::nothing;
    return;
  }
  query->key->priority = query->priority;
  // Without its priority the match may stand for several entries.
  const bool isWhole = !table.needsPriority || query->priority != 0;
  if (isWhole) query->kind = Query::Kind::oneEntry;
}

void requireSupported(const TablePlan& table) {
  if (table.unsupported.empty()) return;
  refuse(code::unimplemented, "table ", table.name, ": ", table.unsupported);
}

Query tableQuery(const P4InfoIndex& index, const TableEntry& entry) {
  Query query;
  query.form = wantedForm(entry);
  if (entry.table_id() == 0) {
    // An unsupported resource is left out beside entries.
    requireNoFilter(entry);
    if (entry.is_default_action()) query.kind = Query::Kind::defaultEntry;
    return query;
  }
  const TablePlan& table = checkedTable(index, entry.table_id());
  if (entry.is_default_action()) return defaultEntryQuery(table, entry);
  requireSupported(table);
  checkWanted(table, entry);
  query.kind = Query::Kind::table;
  query.table = &table;
  if (entry.priority() != 0) query.priority = checkedPriority(table, entry.priority());
  if (entry.has_action()) query.actionId = checkedActionId(table, entry.action());
  query.controllerMetadata = entry.controller_metadata();
  query.metadata = entry.metadata();
  if (entry.match_size() != 0) keyIs(&query, table, entry);
  return query;
}

// Counters or meters of entries: only the entry's key counts.
Query resourceQuery(const P4InfoIndex& index, const TableEntry& entry, EntryForm form) {
  Query query;
  query.form = form;
  query.mustExist = true;
  if (entry.table_id() == 0) {
    if (entry.is_default_action()) query.kind = Query::Kind::defaultEntry;
    return query;
  }
  const char* resource = form == EntryForm::counter ? "counter" : "meter";
  const TablePlan& table = checkedTable(index, entry.table_id());
  if (form == EntryForm::counter ? !table.counter.has_value() : !table.meter.has_value()) {
    refuse(code::invalidArgument, "table ", table.name, " has no direct ", resource);
  }
  if (entry.is_default_action()) {
    tableOfDefaultResources(table, resource);
    query = defaultEntryQuery(table, entry);
    query.form = form;
    return query;
  }
  requireSupported(table);
  query.kind = Query::Kind::table;
  query.table = &table;
  if (entry.priority() != 0) query.priority = checkedPriority(table, entry.priority());
  if (entry.match_size() != 0) keyIs(&query, table, entry);
  return query;
}

Query meterQuery(const P4InfoIndex& index, const p4::v1::DirectMeterEntry& given) {
  Query query = resourceQuery(index, given.table_entry(), EntryForm::meter);
  if (!given.has_counter_data() || query.table == nullptr) return query;
  refuse(code::unimplemented, "table ", query.table->name,
         ": reading a direct meter's counter_data is not supported");
}

Query emptyQuery() {
  Query query;
  query.kind = Query::Kind::nothing;
  return query;
}

Query objectQuery(const P4InfoIndex& index, uint32_t profileId, bool groups, uint32_t id) {
  Query query;
  query.kind = id == 0 ? Query::Kind::objects : Query::Kind::oneObject;
  query.groups = groups;
  query.mustExist = true;
  const char* kind = groups ? "group" : "member";
  if (profileId == 0) {
    if (id == 0) return query;
    refuse(code::invalidArgument, "a query for ", kind, " ", id,
           " names no action profile; give its action_profile_id");
  }
  query.profile = &checkedProfile(index, profileId);
  if (groups && !query.profile->withSelector) {
    refuse(code::invalidArgument, "action profile ", query.profile->name,
           " has no selector, and so no groups");
  }
  if (id != 0) query.key = makeObject({profileId, groups, id}, 0);
  return query;
}

EntityKind kindOf(const p4::v1::Entity& entity) {
  switch (entity.entity_case()) {
    case p4::v1::Entity::kCounterEntry:
      return EntityKind::counter;
    case p4::v1::Entity::kMeterEntry:
      return EntityKind::meter;
    case p4::v1::Entity::kRegisterEntry:
      return EntityKind::registerArray;
    case p4::v1::Entity::kValueSetEntry:
      return EntityKind::valueSet;
    case p4::v1::Entity::kDigestEntry:
      return EntityKind::digest;
    default:
      return entity.packet_replication_engine_entry().has_multicast_group_entry()
                 ? EntityKind::multicastGroup
                 : EntityKind::cloneSession;
  }
}

uint32_t objectIdOf(const p4::v1::Entity& entity) {
  switch (entity.entity_case()) {
    case p4::v1::Entity::kCounterEntry:
      return entity.counter_entry().counter_id();
    case p4::v1::Entity::kMeterEntry:
      return entity.meter_entry().meter_id();
    case p4::v1::Entity::kRegisterEntry:
      return entity.register_entry().register_id();
    case p4::v1::Entity::kValueSetEntry:
      return entity.value_set_entry().value_set_id();
    case p4::v1::Entity::kDigestEntry:
      return entity.digest_entry().digest_id();
    default:
      break;
  }
  const auto& replication = entity.packet_replication_engine_entry();
  return replication.has_multicast_group_entry()
             ? replication.multicast_group_entry().multicast_group_id()
             : replication.clone_session_entry().session_id();
}

// The key of the one row that is asked for; nothing: all of the array.
std::optional<uint64_t> entityKey(const EntityPlan& plan, const p4::v1::Entity& entity) {
  const auto indexOf = [](const auto& given) -> std::optional<uint64_t> {
    if (!given.has_index()) return std::nullopt;
    return static_cast<uint64_t>(given.index().index());
  };
  switch (plan.kind) {
    case EntityKind::counter:
      return indexOf(entity.counter_entry());
    case EntityKind::meter:
      return indexOf(entity.meter_entry());
    case EntityKind::registerArray:
      return indexOf(entity.register_entry());
    case EntityKind::valueSet:
    case EntityKind::digest:
      return 0;
    default:
      return objectIdOf(entity);
  }
}

Query otherQuery(const P4InfoIndex& index, const p4::v1::Entity& entity) {
  checkOtherQuery(index, entity);
  if (entity.has_extern_entry()) {
    requireNothingAsked(index, entity);
    return emptyQuery();
  }
  Query query;
  query.kind = Query::Kind::entities;
  query.entityKind = kindOf(entity);
  if (objectIdOf(entity) == 0) return query;
  query.entity = entityPlan(index, entity);
  if (query.entity == nullptr) {
    requireNothingAsked(index, entity);
    return emptyQuery();
  }
  if (entity.meter_entry().has_counter_data()) {
    refuse(code::unimplemented, query.entity->text, ": reading counter_data is not supported");
  }
  const std::optional<uint64_t> key = entityKey(*query.entity, entity);
  if (!key) return query;
  query.kind = Query::Kind::oneEntity;
  const TablePlan& table = *query.entity->table;
  query.key = makeEntity(table, *key, *table.actions.front().action, {});
  return query;
}

}  // namespace

std::string Query::identity() const {
  std::string result = absl::StrCat(
      static_cast<int>(kind), ",", static_cast<int>(form), ",", mustExist, ",",
      table == nullptr ? 0 : table->id, ",", profile == nullptr ? 0 : profile->id, ",", groups, ",",
      static_cast<int>(entityKind), ",", entity == nullptr ? 0 : entity->id, ",", actionId, ",",
      priority, ",", controllerMetadata, ",", metadata.size(), ",", metadata);
  if (key) result.append(",").append(key->key().bytes);
  return result;
}

bool Query::takes(const Entry& entry) const {
  if (actionId != 0 && entry.actionId != actionId) return false;
  if (priority != 0 && entry.priority != priority) return false;
  if (controllerMetadata != 0 && entry.controllerMetadata != controllerMetadata) return false;
  if (!metadata.empty() && entry.metadata() != metadata) return false;
  return !key || key->key().bytes == entry.key().bytes;
}

bool Query::concerns(const TablePlan& table) const {
  if (!table.unsupported.empty()) return false;
  if (form == EntryForm::counter) return table.counter.has_value();
  return form != EntryForm::meter || table.meter.has_value();
}

EntryForm Query::formFor(const TablePlan& table) const {
  if (isResource(form)) return form;
  const int lacks =
      (table.counter ? 0 : 1) + (table.meter ? 0 : 2) + (table.idleTimeouts != nullptr ? 0 : 4);
  return static_cast<EntryForm>(static_cast<int>(form) & ~lacks);
}

Query checkedQuery(const P4InfoIndex& index, const p4::v1::Entity& entity) {
  switch (entity.entity_case()) {
    case p4::v1::Entity::kTableEntry:
      return tableQuery(index, entity.table_entry());
    case p4::v1::Entity::kDirectCounterEntry:
      return resourceQuery(index, entity.direct_counter_entry().table_entry(), EntryForm::counter);
    case p4::v1::Entity::kDirectMeterEntry:
      return meterQuery(index, entity.direct_meter_entry());
    case p4::v1::Entity::kActionProfileMember: {
      const auto& member = entity.action_profile_member();
      return objectQuery(index, member.action_profile_id(), false, member.member_id());
    }
    case p4::v1::Entity::kActionProfileGroup: {
      const auto& group = entity.action_profile_group();
      return objectQuery(index, group.action_profile_id(), true, group.group_id());
    }
    default:
      return otherQuery(index, entity);
  }
}

}  // namespace pi::fe::proto
