// The part of a target that the front end never calls, for the targets of tests and benchmarks.
#include "PI/target/pi_act_prof_imp.h"
#include "PI/target/pi_counter_imp.h"
#include "PI/target/pi_imp.h"
#include "PI/target/pi_meter_imp.h"
#include "PI/target/pi_tables_imp.h"

#define NEVER_CALLED(name, ...) \
  pi_status_t name(__VA_ARGS__) { return PI_STATUS_NOT_IMPLEMENTED_BY_TARGET; }

NEVER_CALLED(_pi_table_entry_delete, pi_session_handle_t, pi_dev_id_t, pi_p4_id_t,
             pi_entry_handle_t)
NEVER_CALLED(_pi_table_entry_modify, pi_session_handle_t, pi_dev_id_t, pi_p4_id_t,
             pi_entry_handle_t, const pi_table_entry_t*)
NEVER_CALLED(_pi_table_default_action_set, pi_session_handle_t, pi_dev_tgt_t, pi_p4_id_t,
             const pi_table_entry_t*)
NEVER_CALLED(_pi_table_default_action_reset, pi_session_handle_t, pi_dev_tgt_t, pi_p4_id_t)
NEVER_CALLED(_pi_table_default_action_get, pi_session_handle_t, pi_dev_id_t, pi_p4_id_t,
             pi_table_entry_t*)
NEVER_CALLED(_pi_table_default_action_done, pi_session_handle_t, pi_table_entry_t*)

NEVER_CALLED(_pi_act_prof_entries_fetch, pi_session_handle_t, pi_dev_id_t, pi_p4_id_t,
             pi_act_prof_fetch_res_t*)
NEVER_CALLED(_pi_act_prof_entries_fetch_done, pi_session_handle_t, pi_act_prof_fetch_res_t*)

NEVER_CALLED(_pi_counter_read, pi_session_handle_t, pi_dev_tgt_t, pi_p4_id_t, size_t, int,
             pi_counter_data_t*)
NEVER_CALLED(_pi_counter_write, pi_session_handle_t, pi_dev_tgt_t, pi_p4_id_t, size_t,
             const pi_counter_data_t*)
NEVER_CALLED(_pi_counter_write_direct, pi_session_handle_t, pi_dev_tgt_t, pi_p4_id_t,
             pi_entry_handle_t, const pi_counter_data_t*)
NEVER_CALLED(_pi_counter_hw_sync, pi_session_handle_t, pi_dev_tgt_t, pi_p4_id_t, PICounterHwSyncCb,
             void*)
NEVER_CALLED(_pi_meter_read, pi_session_handle_t, pi_dev_tgt_t, pi_p4_id_t, size_t,
             pi_meter_spec_t*)
NEVER_CALLED(_pi_meter_set, pi_session_handle_t, pi_dev_tgt_t, pi_p4_id_t, size_t,
             const pi_meter_spec_t*)
NEVER_CALLED(_pi_meter_read_direct, pi_session_handle_t, pi_dev_tgt_t, pi_p4_id_t,
             pi_entry_handle_t, pi_meter_spec_t*)
NEVER_CALLED(_pi_meter_set_direct, pi_session_handle_t, pi_dev_tgt_t, pi_p4_id_t, pi_entry_handle_t,
             const pi_meter_spec_t*)
