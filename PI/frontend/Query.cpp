// One element of a Read, checked against the P4Info.
#include "PI/frontend/Query.h"

#include "PI/frontend/EntityText.h"
#include "PI/frontend/KeyCodec.h"
#include "PI/frontend/Refusal.h"
#include "PI/frontend/UpdateCheck.h"

namespace pi::fe::proto {

using p4::v1::TableEntry;

namespace {

void requireNoFilter(const TableEntry& entry) {
  if (entry.match_size() == 0 && !entry.has_action() && entry.priority() == 0 &&
      entry.controller_metadata() == 0 && entry.metadata().empty() && !entry.is_default_action()) {
    return;
  }
  refuse(code::invalidArgument, "a query for all tables (table id 0) takes no filter");
}

// What is asked for beside the entry itself.
void checkWanted(const TablePlan& table, const TableEntry& entry) {
  if (entry.has_time_since_last_hit() && !table.hasIdleTimeout) {
    refuse(code::invalidArgument, "table ", table.name, ": its entries have no idle time-out");
  }
  const char* wanted = nullptr;
  if (entry.has_time_since_last_hit()) wanted = "time_since_last_hit";
  if (entry.has_counter_data() && table.hasDirectCounter) wanted = "counter_data";
  if (entry.has_meter_config() && table.hasDirectMeter) wanted = "meter_config";
  if (entry.has_meter_counter_data() && table.hasDirectMeter) wanted = "meter_counter_data";
  if (wanted == nullptr) return;
  refuse(code::unimplemented, "table ", table.name, ": reading ", wanted, " is not supported");
}

void checkWantedOfAll(const P4InfoIndex& index, TableEntry entry) {
  entry.clear_time_since_last_hit();  // left out where it is not supported
  for (const auto& table : index.tables()) checkWanted(*table, entry);
}

uint32_t checkedActionId(const TablePlan& table, const p4::v1::TableAction& action) {
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

Query defaultEntryQuery(const TablePlan& table, const TableEntry& entry) {
  if (entry.match_size() != 0 || entry.priority() != 0 || entry.idle_timeout_ns() != 0 ||
      entry.has_time_since_last_hit()) {
    refuse(code::invalidArgument, "table ", table.name,
           ": the default entry has neither match, priority nor idle time-out");
  }
  Query query;
  query.kind = Query::Kind::defaultEntry;
  query.table = &table;
  return query;
}

void keyIs(Query* query, const TablePlan& table, const TableEntry& entry) {
  query->key = Entry::make(table.id, table.keyBytes, 0, 0);
  encodeKey(table, entry, query->key->keyData());
  query->key->priority = query->priority;
  // Without its priority the match may stand for several entries.
  const bool isWhole = !table.needsPriority || query->priority != 0;
  if (isWhole) query->kind = Query::Kind::oneEntry;
}

}  // namespace

bool Query::takes(const Entry& entry) const {
  if (actionId != 0 && entry.actionId != actionId) return false;
  if (priority != 0 && entry.priority != priority) return false;
  if (controllerMetadata != 0 && entry.controllerMetadata != controllerMetadata) return false;
  if (!metadata.empty() && entry.metadata() != metadata) return false;
  return !key || key->key().bytes == entry.key().bytes;
}

Query checkedQuery(const P4InfoIndex& index, const p4::v1::Entity& entity) {
  if (!entity.has_table_entry()) {
    const std::string text = entityText(index, entity);
    if (text.empty()) refuse(code::invalidArgument, "the query names no kind of entity");
    refuse(code::unimplemented, text, ": reading it is not supported");
  }
  const TableEntry& entry = entity.table_entry();
  Query query;
  if (entry.table_id() == 0) {
    requireNoFilter(entry);
    checkWantedOfAll(index, entry);
    return query;
  }
  const TablePlan& table = checkedTable(index, entry.table_id());
  if (entry.is_default_action()) return defaultEntryQuery(table, entry);
  if (!table.unsupported.empty()) {
    refuse(code::unimplemented, "table ", table.name, ": ", table.unsupported);
  }
  checkWanted(table, entry);
  query.kind = Query::Kind::table;
  query.table = &table;
  if (entry.priority() != 0) query.priority = checkedPriority(table, entry);
  if (entry.has_action()) query.actionId = checkedActionId(table, entry.action());
  query.controllerMetadata = entry.controller_metadata();
  query.metadata = entry.metadata();
  if (entry.match_size() != 0) keyIs(&query, table, entry);
  return query;
}

}  // namespace pi::fe::proto
