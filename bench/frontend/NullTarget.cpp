// A target that confirms everything at once and keeps nothing.
#include <algorithm>

#include "PI/int/pi_int.h"
#include "PI/target/pi_act_prof_imp.h"
#include "PI/target/pi_counter_imp.h"
#include "PI/target/pi_extensions_imp.h"
#include "PI/target/pi_imp.h"
#include "PI/target/pi_pending_imp.h"
#include "PI/target/pi_tables_imp.h"
#include "p4/v1/p4runtime.pb.h"

pi_status_t _pi_init(void*) { return PI_STATUS_SUCCESS; }
pi_status_t _pi_assign_device(pi_dev_id_t, const pi_p4info_t*, pi_assign_extra_t*) {
  return PI_STATUS_SUCCESS;
}
pi_status_t _pi_update_device_start(pi_dev_id_t, const pi_p4info_t*, const char*, size_t) {
  return PI_STATUS_SUCCESS;
}
pi_status_t _pi_update_device_end(pi_dev_id_t) { return PI_STATUS_SUCCESS; }
pi_status_t _pi_remove_device(pi_dev_id_t) { return PI_STATUS_SUCCESS; }
pi_status_t _pi_destroy() { return PI_STATUS_SUCCESS; }
pi_status_t _pi_session_init(pi_session_handle_t* handle) {
  *handle = 0;
  return PI_STATUS_SUCCESS;
}
pi_status_t _pi_session_cleanup(pi_session_handle_t) { return PI_STATUS_SUCCESS; }
pi_status_t _pi_batch_begin(pi_session_handle_t) { return PI_STATUS_SUCCESS; }
pi_status_t _pi_batch_end(pi_session_handle_t, bool) { return PI_STATUS_SUCCESS; }
pi_status_t _pi_packetout_send(pi_dev_id_t, const char*, size_t) { return PI_STATUS_SUCCESS; }

pi_status_t _pi_table_entry_add(pi_session_handle_t, pi_dev_tgt_t, pi_p4_id_t,
                                const pi_match_key_t*, const pi_table_entry_t*, int,
                                pi_entry_handle_t* handle) {
  *handle = 1;
  return PI_STATUS_SUCCESS;
}
pi_status_t _pi_table_entry_delete_wkey(pi_session_handle_t, pi_dev_id_t, pi_p4_id_t,
                                        const pi_match_key_t*) {
  return PI_STATUS_SUCCESS;
}
pi_status_t _pi_table_entries_fetch(pi_session_handle_t, pi_dev_id_t, pi_p4_id_t,
                                    pi_table_fetch_res_t*) {
  return PI_STATUS_SUCCESS;
}
pi_status_t _pi_table_entries_fetch_done(pi_session_handle_t, pi_table_fetch_res_t*) {
  return PI_STATUS_SUCCESS;
}

pi_status_t _pi_act_prof_mbr_create(pi_session_handle_t, pi_dev_tgt_t, pi_p4_id_t,
                                    const pi_action_data_t*, pi_indirect_handle_t* member) {
  *member = 1;
  return PI_STATUS_SUCCESS;
}
pi_status_t _pi_act_prof_mbr_delete(pi_session_handle_t, pi_dev_id_t, pi_p4_id_t,
                                    pi_indirect_handle_t) {
  return PI_STATUS_SUCCESS;
}
pi_status_t _pi_act_prof_mbr_modify(pi_session_handle_t, pi_dev_id_t, pi_p4_id_t,
                                    pi_indirect_handle_t, const pi_action_data_t*) {
  return PI_STATUS_SUCCESS;
}
pi_status_t _pi_act_prof_grp_create(pi_session_handle_t, pi_dev_tgt_t, pi_p4_id_t, size_t,
                                    pi_indirect_handle_t* group) {
  *group = 1;
  return PI_STATUS_SUCCESS;
}
pi_status_t _pi_act_prof_grp_delete(pi_session_handle_t, pi_dev_id_t, pi_p4_id_t,
                                    pi_indirect_handle_t) {
  return PI_STATUS_SUCCESS;
}
pi_status_t _pi_act_prof_grp_add_mbr(pi_session_handle_t, pi_dev_id_t, pi_p4_id_t,
                                     pi_indirect_handle_t, pi_indirect_handle_t) {
  return PI_STATUS_SUCCESS;
}
pi_status_t _pi_act_prof_grp_remove_mbr(pi_session_handle_t, pi_dev_id_t, pi_p4_id_t,
                                        pi_indirect_handle_t, pi_indirect_handle_t) {
  return PI_STATUS_SUCCESS;
}
pi_status_t _pi_act_prof_grp_metadata_set(pi_session_handle_t, pi_dev_id_t, pi_p4_id_t,
                                          pi_indirect_handle_t) {
  return PI_STATUS_SUCCESS;
}
void _pi_abilities(const char*, size_t, pi_abilities_t*) {}
int _pi_port_exists(uint32_t) { return 1; }
void _pi_counter_cells_read(pi_dev_id_t, pi_p4_id_t, size_t, size_t count,
                            pi_counter_data_t* data) {
  std::fill_n(data, count, pi_counter_data_t{});
}
int _pi_pipeline_push(pi_dev_id_t, int, const char*, size_t, pi_bytes_receiver_t, void*) {
  return 12;
}
void _pi_pipeline_given(pi_dev_id_t, pi_bytes_receiver_t, void*) {}
void _pi_counts_wanted(pi_dev_id_t) {}
int _pi_register_cells(pi_dev_id_t, pi_p4_id_t, uint64_t, uint32_t, pi_bytes_receiver_t, void*) {
  return 0;
}
int _pi_last_hits(pi_dev_id_t, pi_p4_id_t, const pi_entry_handle_t*, size_t, uint64_t*,
                  pi_bytes_receiver_t, void*) {
  return 12;
}
void _pi_table_entries_coming(pi_dev_id_t, const pi_entry_handle_t*, size_t) {}
void _pi_burst_begin(pi_dev_id_t) {}
void _pi_burst_end(pi_dev_id_t) {}
pi_status_t _pi_counter_read_direct(pi_session_handle_t, pi_dev_tgt_t, pi_p4_id_t,
                                    pi_entry_handle_t, int, pi_counter_data_t* data) {
  *data = {};
  return PI_STATUS_SUCCESS;
}
pi_status_t _pi_counters_read_direct(pi_session_handle_t, pi_dev_tgt_t, pi_p4_id_t,
                                     const pi_entry_handle_t*, size_t count, int,
                                     pi_counter_data_t* data) {
  std::fill_n(data, count, pi_counter_data_t{});
  return PI_STATUS_SUCCESS;
}

void _pi_update_pending_status(std::vector<std::pair<uint32_t, p4::v1::Error>>* statuses) {
  statuses->clear();
}
