/* The PI library: its life, its devices, sessions, batches and packets. Every function may be
 * called from any thread. No lock of the library is held while it calls the target, which may
 * therefore call back into it. */
#pragma once

#include "PI/pi_base.h"

#ifdef __cplusplus
extern "C" {
#endif

/* One pair of a list that ends with an element whose end_of_extras is not zero. */
typedef struct {
  int end_of_extras;
  const char* key;
  const char* v;
} pi_assign_extra_t;

typedef struct {
  const char* rpc_addr;
  const char* notifications_addr;
} pi_remote_addr_t;

/* Initialises the target; without effect while initialised. remote_addr may be NULL; this build
 * has its target in the process and does not use it. */
pi_status_t pi_init(size_t max_devices, pi_remote_addr_t* remote_addr);
/* Lets the target go, which removes its device itself; then removes the devices still assigned.
 * Returns the target's status. */
pi_status_t pi_destroy(void);

/* The caller owns p4info and keeps it until the device is removed and all its calls returned.
 * DEV_ALREADY_ASSIGNED; DEV_OUT_OF_RANGE when max_devices are assigned. */
pi_status_t pi_assign_device(pi_dev_id_t dev_id, const pi_p4info_t* p4info,
                             pi_assign_extra_t* extra);
/* The target has its new pipeline from pi_update_device_end() on. DEV_NOT_ASSIGNED. */
pi_status_t pi_update_device_start(pi_dev_id_t dev_id, const pi_p4info_t* p4info,
                                   const char* device_data, size_t device_data_size);
pi_status_t pi_update_device_end(pi_dev_id_t dev_id);
/* DEV_NOT_ASSIGNED, without telling the target, for a device that is not there. */
pi_status_t pi_remove_device(pi_dev_id_t dev_id);

bool pi_is_device_assigned(pi_dev_id_t dev_id);
size_t pi_num_devices(void);
/* Writes at most max ids, in no particular order; how many it wrote. */
size_t pi_get_device_ids(pi_dev_id_t* dev_ids, size_t max);
/* NULL when the device is not assigned. */
const pi_p4info_t* pi_get_device_p4info(pi_dev_id_t dev_id);

pi_status_t pi_session_init(pi_session_handle_t* session_handle);
pi_status_t pi_session_cleanup(pi_session_handle_t session_handle);

pi_status_t pi_batch_begin(pi_session_handle_t session_handle);
pi_status_t pi_batch_end(pi_session_handle_t session_handle, bool hw_sync);

/* pkt lasts for the call. A callback is not running any more once its deregistration returned;
 * it must therefore not deregister itself. */
typedef void (*PIPacketInCb)(pi_dev_id_t dev_id, const char* pkt, size_t size, void* cb_cookie);

pi_status_t pi_packetin_register_cb(pi_dev_id_t dev_id, PIPacketInCb cb, void* cb_cookie);
/* For the packets of devices that have no callback of their own. */
pi_status_t pi_packetin_register_default_cb(PIPacketInCb cb, void* cb_cookie);
pi_status_t pi_packetin_deregister_cb(pi_dev_id_t dev_id);
pi_status_t pi_packetin_deregister_default_cb(void);

/* What travels between the library and its target is the header and then the packet. The header
 * has the metadata fields of packet_out (packet_in) in ascending order of their ids, each in
 * (bitwidth + 7) / 8 bytes of its own, most significant byte first; none when the P4Info has no
 * such header. */
pi_status_t pi_packetout_send(pi_dev_id_t dev_id, const char* pkt, size_t size);

#ifdef __cplusplus
}
#endif
