// Table entries: calls to the target, and the decoding of fetched entries.
#include "PI/core/FetchReader.h"
#include "PI/int/pi_int.h"
#include "PI/pi.h"
#include "PI/pi_extensions.h"
#include "PI/target/pi_tables_imp.h"

namespace {

using pi::core::FetchReader;

// The target's result, and room for the entry that pi_table_entries_next() shows.
struct TableFetch : pi_table_fetch_res_s {
  bool broken = false;
  pi_match_key_t key{};
  pi_action_data_t action{};
};

bool readAction(FetchReader& reader, TableFetch* fetch, pi_table_entry_t* entry) {
  uint32_t type = 0;
  if (!reader.number(&type)) return false;
  switch (type) {
    case PI_ACTION_ENTRY_TYPE_DATA:
      entry->entry_type = PI_ACTION_ENTRY_TYPE_DATA;
      entry->entry.action_data = &fetch->action;
      return reader.actionData(&fetch->action);
    case PI_ACTION_ENTRY_TYPE_INDIRECT:
      entry->entry_type = PI_ACTION_ENTRY_TYPE_INDIRECT;
      return reader.number(&entry->entry.indirect_handle);
    default:
      return false;
  }
}

// Targets of this build fetch neither properties nor direct resources.
bool readNoExtras(FetchReader& reader) {
  uint32_t properties = 0;
  uint32_t directResources = 0;
  return reader.number(&properties) && properties == 0 && reader.number(&directResources) &&
         directResources == 0;
}

bool readEntry(FetchReader& reader, TableFetch* fetch, pi_table_ma_entry_t* entry,
               pi_entry_handle_t* handle) {
  fetch->key.data_size = fetch->mkey_nbytes;
  entry->match_key = &fetch->key;
  entry->entry = {};
  return reader.number(handle) && reader.number(&fetch->key.priority) &&
         reader.bytes(fetch->mkey_nbytes, &fetch->key.data) &&
         readAction(reader, fetch, &entry->entry) && readNoExtras(reader);
}

}  // namespace

pi_status_t pi_table_entry_add(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                               pi_p4_id_t table_id, const pi_match_key_t* match_key,
                               const pi_table_entry_t* table_entry, int overwrite,
                               pi_entry_handle_t* entry_handle) {
  return _pi_table_entry_add(session_handle, dev_tgt, table_id, match_key, table_entry, overwrite,
                             entry_handle);
}

pi_status_t pi_table_entry_delete(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                  pi_p4_id_t table_id, pi_entry_handle_t entry_handle) {
  return _pi_table_entry_delete(session_handle, dev_id, table_id, entry_handle);
}

pi_status_t pi_table_entry_delete_wkey(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                       pi_p4_id_t table_id, const pi_match_key_t* match_key) {
  return _pi_table_entry_delete_wkey(session_handle, dev_id, table_id, match_key);
}

pi_status_t pi_table_entry_modify(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                  pi_p4_id_t table_id, pi_entry_handle_t entry_handle,
                                  const pi_table_entry_t* table_entry) {
  return _pi_table_entry_modify(session_handle, dev_id, table_id, entry_handle, table_entry);
}

void pi_table_entries_coming(pi_dev_id_t dev_id, const pi_entry_handle_t* entry_handles,
                             size_t count) {
  _pi_table_entries_coming(dev_id, entry_handles, count);
}

void pi_burst_begin(pi_dev_id_t dev_id) { _pi_burst_begin(dev_id); }

void pi_burst_end(pi_dev_id_t dev_id) { _pi_burst_end(dev_id); }

pi_status_t pi_table_default_action_set(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                        pi_p4_id_t table_id, const pi_table_entry_t* table_entry) {
  return _pi_table_default_action_set(session_handle, dev_tgt, table_id, table_entry);
}

pi_status_t pi_table_default_action_reset(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                          pi_p4_id_t table_id) {
  return _pi_table_default_action_reset(session_handle, dev_tgt, table_id);
}

pi_status_t pi_table_default_action_get(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                        pi_p4_id_t table_id, pi_table_entry_t* table_entry) {
  return _pi_table_default_action_get(session_handle, dev_id, table_id, table_entry);
}

pi_status_t pi_table_default_action_done(pi_session_handle_t session_handle,
                                         pi_table_entry_t* table_entry) {
  return _pi_table_default_action_done(session_handle, table_entry);
}

pi_status_t pi_table_entries_fetch(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                   pi_p4_id_t table_id, pi_table_fetch_res_t** res) {
  *res = nullptr;
  auto* fetch = new TableFetch{};
  fetch->p4info = fetch->key.p4info = fetch->action.p4info = pi_get_device_p4info(dev_id);
  fetch->table_id = fetch->key.table_id = table_id;
  const pi_status_t status = _pi_table_entries_fetch(session_handle, dev_id, table_id, fetch);
  if (status != PI_STATUS_SUCCESS) {
    delete fetch;
    return status;
  }
  *res = fetch;
  return PI_STATUS_SUCCESS;
}

pi_status_t pi_table_entries_fetch_done(pi_session_handle_t session_handle,
                                        pi_table_fetch_res_t* res) {
  if (!res) return PI_STATUS_BUFFER_ERROR;
  const pi_status_t status = _pi_table_entries_fetch_done(session_handle, res);
  delete static_cast<TableFetch*>(res);
  return status;
}

size_t pi_table_entries_num(const pi_table_fetch_res_t* res) { return res->num_entries; }

pi_status_t pi_table_entries_next(pi_table_fetch_res_t* res, pi_table_ma_entry_t* entry,
                                  pi_entry_handle_t* entry_handle) {
  auto* fetch = static_cast<TableFetch*>(res);
  if (fetch->broken) return PI_STATUS_BUFFER_ERROR;
  if (fetch->idx >= fetch->num_entries) return PI_STATUS_OUT_OF_BOUND_IDX;
  FetchReader reader(fetch->entries, fetch->entries_size, fetch->curr);
  fetch->broken = !readEntry(reader, fetch, entry, entry_handle);
  if (fetch->broken) return PI_STATUS_BUFFER_ERROR;
  fetch->curr = reader.offset();
  ++fetch->idx;
  return PI_STATUS_SUCCESS;
}
