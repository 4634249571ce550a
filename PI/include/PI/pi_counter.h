/* Counters, indexed and direct. */
#pragma once

#include "PI/pi_base.h"
#include "PI/pi_tables.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef uint64_t pi_counter_value_t;

#define PI_COUNTER_UNIT_PACKETS (1 << 0)
#define PI_COUNTER_UNIT_BYTES (1 << 1)

typedef struct {
  int valid; /* PI_COUNTER_UNIT_* of the values that mean something */
  pi_counter_value_t bytes;
  pi_counter_value_t packets;
} pi_counter_data_t;

#define PI_COUNTER_FLAGS_NONE 0
#define PI_COUNTER_FLAGS_HW_SYNC (1 << 0)

typedef void (*PICounterHwSyncCb)(pi_dev_id_t dev_id, pi_p4_id_t counter_id, void* cb_cookie);

/* Each hands its arguments to the target function of the same name and returns its status. */
pi_status_t pi_counter_read(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                            pi_p4_id_t counter_id, size_t index, int flags,
                            pi_counter_data_t* counter_data);
pi_status_t pi_counter_write(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                             pi_p4_id_t counter_id, size_t index,
                             const pi_counter_data_t* counter_data);
pi_status_t pi_counter_read_direct(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                   pi_p4_id_t counter_id, pi_entry_handle_t entry_handle, int flags,
                                   pi_counter_data_t* counter_data);
pi_status_t pi_counter_write_direct(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                    pi_p4_id_t counter_id, pi_entry_handle_t entry_handle,
                                    const pi_counter_data_t* counter_data);
pi_status_t pi_counter_hw_sync(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                               pi_p4_id_t counter_id, PICounterHwSyncCb cb, void* cb_cookie);

#ifdef __cplusplus
}
#endif
