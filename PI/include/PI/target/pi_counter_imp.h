/* What a target exports for counters. */
#pragma once

#include "PI/pi_counter.h"

#ifdef __cplusplus
extern "C" {
#endif

pi_status_t _pi_counter_read(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                             pi_p4_id_t counter_id, size_t index, int flags,
                             pi_counter_data_t* counter_data);
pi_status_t _pi_counter_write(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                              pi_p4_id_t counter_id, size_t index,
                              const pi_counter_data_t* counter_data);
pi_status_t _pi_counter_read_direct(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                    pi_p4_id_t counter_id, pi_entry_handle_t entry_handle,
                                    int flags, pi_counter_data_t* counter_data);
pi_status_t _pi_counters_read_direct(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                     pi_p4_id_t counter_id, const pi_entry_handle_t* entry_handles,
                                     size_t count, int flags, pi_counter_data_t* counter_data);
pi_status_t _pi_counter_write_direct(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                     pi_p4_id_t counter_id, pi_entry_handle_t entry_handle,
                                     const pi_counter_data_t* counter_data);
pi_status_t _pi_counter_hw_sync(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                pi_p4_id_t counter_id, PICounterHwSyncCb cb, void* cb_cookie);

#ifdef __cplusplus
}
#endif
