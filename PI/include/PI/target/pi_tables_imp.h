/* What a target exports for tables. */
#pragma once

#include "PI/pi_tables.h"

#ifdef __cplusplus
extern "C" {
#endif

pi_status_t _pi_table_entry_add(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                pi_p4_id_t table_id, const pi_match_key_t* match_key,
                                const pi_table_entry_t* table_entry, int overwrite,
                                pi_entry_handle_t* entry_handle);
pi_status_t _pi_table_entry_delete(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                   pi_p4_id_t table_id, pi_entry_handle_t entry_handle);
pi_status_t _pi_table_entry_delete_wkey(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                        pi_p4_id_t table_id, const pi_match_key_t* match_key);
pi_status_t _pi_table_entry_modify(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                   pi_p4_id_t table_id, pi_entry_handle_t entry_handle,
                                   const pi_table_entry_t* table_entry);

pi_status_t _pi_table_default_action_set(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                         pi_p4_id_t table_id, const pi_table_entry_t* table_entry);
pi_status_t _pi_table_default_action_reset(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                           pi_p4_id_t table_id);
pi_status_t _pi_table_default_action_get(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                         pi_p4_id_t table_id, pi_table_entry_t* table_entry);
pi_status_t _pi_table_default_action_done(pi_session_handle_t session_handle,
                                          pi_table_entry_t* table_entry);

void _pi_table_entries_coming(pi_dev_id_t dev_id, const pi_entry_handle_t* entry_handles,
                              size_t count);
void _pi_burst_begin(pi_dev_id_t dev_id);
void _pi_burst_end(pi_dev_id_t dev_id);

/* Layout of the result: PI/int/pi_int.h. */
pi_status_t _pi_table_entries_fetch(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                    pi_p4_id_t table_id, pi_table_fetch_res_t* res);
pi_status_t _pi_table_entries_fetch_done(pi_session_handle_t session_handle,
                                         pi_table_fetch_res_t* res);

#ifdef __cplusplus
}
#endif
