/* What a target exports for its life, devices, sessions, batches and packets. */
#pragma once

#include "PI/pi.h"

#ifdef __cplusplus
extern "C" {
#endif

pi_status_t _pi_init(void* extra);
pi_status_t _pi_assign_device(pi_dev_id_t dev_id, const pi_p4info_t* p4info,
                              pi_assign_extra_t* extra);
pi_status_t _pi_update_device_start(pi_dev_id_t dev_id, const pi_p4info_t* p4info,
                                    const char* device_data, size_t device_data_size);
pi_status_t _pi_update_device_end(pi_dev_id_t dev_id);
pi_status_t _pi_remove_device(pi_dev_id_t dev_id);
pi_status_t _pi_destroy(void);

pi_status_t _pi_session_init(pi_session_handle_t* session_handle);
pi_status_t _pi_session_cleanup(pi_session_handle_t session_handle);

pi_status_t _pi_batch_begin(pi_session_handle_t session_handle);
pi_status_t _pi_batch_end(pi_session_handle_t session_handle, bool hw_sync);

pi_status_t _pi_packetout_send(pi_dev_id_t dev_id, const char* pkt, size_t size);

/* Called by the target. PACKETIN_NO_CB when nobody takes the device's packets. */
pi_status_t pi_packetin_receive(pi_dev_id_t dev_id, const char* pkt, size_t size);

#ifdef __cplusplus
}
#endif
