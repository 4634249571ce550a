// The entries of a table as the target holds them.
#include "PI/frontend/FetchedTable.h"

#include <cstring>

#include "PI/frontend/Refusal.h"
#include "PI/int/pi_int.h"

namespace pi::fe::proto {

std::optional<EntryPtr> entryOf(const TablePlan& table, const pi_match_key_t& key,
                                const pi_table_entry_t& given, size_t metadataSize) {
  if (!table.unsupported.empty() || key.data_size != table.keyBytes) return std::nullopt;
  if (given.entry_type != PI_ACTION_ENTRY_TYPE_DATA || given.entry.action_data == nullptr) {
    return std::nullopt;
  }
  const pi_action_data_t& action = *given.entry.action_data;
  const ActionUse* use = table.actionUse(action.action_id);
  if (use == nullptr || use->action->dataBytes != action.data_size) return std::nullopt;
  EntryPtr entry = Entry::make(table.id, key.data_size, action.data_size, metadataSize);
  entry->priority = key.priority;
  entry->actionId = action.action_id;
  if (key.data_size != 0) std::memcpy(entry->keyData(), key.data, key.data_size);
  if (action.data_size != 0) std::memcpy(entry->actionData(), action.data, action.data_size);
  return entry;
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
