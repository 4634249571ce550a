// The entries of a table as the target holds them.
#include "PI/frontend/restore/FetchedTable.h"

#include <cstring>

#include "PI/frontend/base/Refusal.h"
#include "PI/frontend/store/ProfileObjects.h"
#include "PI/int/pi_int.h"
#include "PI/pi_meter.h"

namespace pi::fe::proto {

namespace {

std::optional<EntryPtr> directEntry(const TablePlan& table, const pi_match_key_t& key,
                                    const pi_table_entry_t& given, size_t metadataSize) {
  if (given.entry.action_data == nullptr) return std::nullopt;
  const pi_action_data_t& action = *given.entry.action_data;
  const ActionUse* use = table.actionUse(action.action_id);
  if (use == nullptr || use->action->dataBytes != action.data_size) return std::nullopt;
  EntryPtr entry = Entry::make(table.id, key.data_size, action.data_size, metadataSize,
                               meterSettingOf(table, given));
  entry->actionId = action.action_id;
  if (action.data_size != 0) std::memcpy(entry->actionData(), action.data, action.data_size);
  return entry;
}

EntryPtr indirectEntry(const TablePlan& table, const pi_match_key_t& key,
                       const pi_table_entry_t& given, size_t metadataSize) {
  EntryPtr entry = Entry::make(table.id, key.data_size, kReferenceBytes, metadataSize,
                               meterSettingOf(table, given));
  entry->kind = EntryKind::unresolved;
  referenceIs(entry.get(), {given.entry.indirect_handle, 0});
  return entry;
}

}  // namespace

std::optional<EntryPtr> entryOf(const TablePlan& table, const pi_match_key_t& key,
                                const pi_table_entry_t& given, size_t metadataSize) {
  if (!table.unsupported.empty() || key.data_size != table.keyBytes) return std::nullopt;
  const bool isIndirect = given.entry_type == PI_ACTION_ENTRY_TYPE_INDIRECT;
  if (!isIndirect && given.entry_type != PI_ACTION_ENTRY_TYPE_DATA) return std::nullopt;
  if (isIndirect != (table.profile != nullptr)) return std::nullopt;
  std::optional<EntryPtr> entry = isIndirect ? indirectEntry(table, key, given, metadataSize)
                                             : directEntry(table, key, given, metadataSize);
  if (!entry) return std::nullopt;
  (*entry)->priority = key.priority;
  if (key.data_size != 0) std::memcpy((*entry)->keyData(), key.data, key.data_size);
  return entry;
}

std::optional<MeterSetting> meterSettingOf(const TablePlan& table, const pi_table_entry_t& given) {
  if (!table.meter || given.direct_res_config == nullptr) return std::nullopt;
  for (size_t i = 0; i < given.direct_res_config->num_configs; ++i) {
    const pi_direct_res_config_one_t& one = given.direct_res_config->configs[i];
    if (one.res_id != table.meter->id || one.config == nullptr) continue;
    const auto& spec = *static_cast<const pi_meter_spec_t*>(one.config);
    return MeterSetting{spec.cir, spec.pir, spec.cburst, spec.pburst};
  }
  return std::nullopt;
}

FetchedTable::FetchedTable(const TargetSession& session, const TablePlan& table)
    : session_(session), table_(table) {
  const pi_status_t status =
      pi_table_entries_fetch(session_.handle, session_.deviceId, table_.id, &result_);
  if (status == PI_STATUS_SUCCESS) return;
  refuse(code::internal, "table ", table_.name, ": the target did not give its entries: status ",
         status);
}

FetchedTable::~FetchedTable() { pi_table_entries_fetch_done(session_.handle, result_); }

size_t FetchedTable::size() const { return pi_table_entries_num(result_); }

EntryPtr FetchedTable::next() {
  pi_table_ma_entry_t given{};
  pi_entry_handle_t handle = 0;
  const pi_status_t status = pi_table_entries_next(result_, &given, &handle);
  if (status == PI_STATUS_OUT_OF_BOUND_IDX) return {};
  if (status != PI_STATUS_SUCCESS) {
    refuse(code::internal, "table ", table_.name, ": the target's entries cannot be read: status ",
           status);
  }
  std::optional<EntryPtr> entry = entryOf(table_, *given.match_key, given.entry, 0);
  if (!entry) {
    refuse(code::internal, "table ", table_.name, ": the target holds an entry (handle ", handle,
           ") that does not fit the table");
  }
  (*entry)->handle = handle;
  return *std::move(entry);
}

}  // namespace pi::fe::proto
