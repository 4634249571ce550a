// Counters and meters: calls to the target.
#include "PI/pi_extensions.h"
#include "PI/target/pi_counter_imp.h"
#include "PI/target/pi_meter_imp.h"

pi_status_t pi_counter_read(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                            pi_p4_id_t counter_id, size_t index, int flags,
                            pi_counter_data_t* counter_data) {
  return _pi_counter_read(session_handle, dev_tgt, counter_id, index, flags, counter_data);
}

pi_status_t pi_counter_write(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                             pi_p4_id_t counter_id, size_t index,
                             const pi_counter_data_t* counter_data) {
  return _pi_counter_write(session_handle, dev_tgt, counter_id, index, counter_data);
}

pi_status_t pi_counter_read_direct(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                   pi_p4_id_t counter_id, pi_entry_handle_t entry_handle, int flags,
                                   pi_counter_data_t* counter_data) {
  return _pi_counter_read_direct(session_handle, dev_tgt, counter_id, entry_handle, flags,
                                 counter_data);
}

pi_status_t pi_counters_read_direct(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                    pi_p4_id_t counter_id, const pi_entry_handle_t* entry_handles,
                                    size_t count, int flags, pi_counter_data_t* counter_data) {
  return _pi_counters_read_direct(session_handle, dev_tgt, counter_id, entry_handles, count, flags,
                                  counter_data);
}

pi_status_t pi_counter_write_direct(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                    pi_p4_id_t counter_id, pi_entry_handle_t entry_handle,
                                    const pi_counter_data_t* counter_data) {
  return _pi_counter_write_direct(session_handle, dev_tgt, counter_id, entry_handle, counter_data);
}

pi_status_t pi_counter_hw_sync(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                               pi_p4_id_t counter_id, PICounterHwSyncCb cb, void* cb_cookie) {
  return _pi_counter_hw_sync(session_handle, dev_tgt, counter_id, cb, cb_cookie);
}

pi_status_t pi_meter_read(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                          pi_p4_id_t meter_id, size_t index, pi_meter_spec_t* meter_spec) {
  return _pi_meter_read(session_handle, dev_tgt, meter_id, index, meter_spec);
}

pi_status_t pi_meter_set(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                         pi_p4_id_t meter_id, size_t index, const pi_meter_spec_t* meter_spec) {
  return _pi_meter_set(session_handle, dev_tgt, meter_id, index, meter_spec);
}

pi_status_t pi_meter_read_direct(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                 pi_p4_id_t meter_id, pi_entry_handle_t entry_handle,
                                 pi_meter_spec_t* meter_spec) {
  return _pi_meter_read_direct(session_handle, dev_tgt, meter_id, entry_handle, meter_spec);
}

pi_status_t pi_meter_set_direct(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                pi_p4_id_t meter_id, pi_entry_handle_t entry_handle,
                                const pi_meter_spec_t* meter_spec) {
  return _pi_meter_set_direct(session_handle, dev_tgt, meter_id, entry_handle, meter_spec);
}
