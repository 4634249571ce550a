/* The scalars, ids and statuses shared by all of the PI library. Numbers are relied on by targets
 * and must not change. */
#pragma once

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef uint32_t pi_p4_id_t;
typedef uint64_t pi_dev_id_t;
typedef uint32_t pi_session_handle_t;
typedef int32_t pi_port_t;
typedef size_t pi_res_type_id_t;

#define PI_INVALID_ID 0

typedef struct {
  pi_dev_id_t dev_id;
  uint16_t dev_pipe_mask;
} pi_dev_tgt_t;

/* What describes a device's program; opaque to targets. Defined in PI/int/pi_int.h. */
typedef struct pi_p4info_s pi_p4info_t;

/* 0 neither reads nor writes, 1 reads only, 2 reads and writes. */
typedef uint32_t pi_operation_permission_level_t;

/* The top 8 bits of an id are the kind of its object. */
typedef enum {
  PI_ACTION_ID = 0x01,
  PI_TABLE_ID = 0x02,
  PI_ACT_PROF_ID = 0x11,
  PI_COUNTER_ID = 0x12,
  PI_DIRECT_COUNTER_ID = 0x13,
  PI_METER_ID = 0x14,
  PI_DIRECT_METER_ID = 0x15,
  PI_DIGEST_ID = 0x17,
  PI_RES_TYPE_MAX = 0x100
} pi_res_type_t;

static inline pi_res_type_id_t pi_res_type_of(pi_p4_id_t id) { return id >> 24; }
static inline bool pi_is_action_id(pi_p4_id_t id) { return pi_res_type_of(id) == PI_ACTION_ID; }
static inline bool pi_is_table_id(pi_p4_id_t id) { return pi_res_type_of(id) == PI_TABLE_ID; }
static inline bool pi_is_act_prof_id(pi_p4_id_t id) { return pi_res_type_of(id) == PI_ACT_PROF_ID; }
static inline bool pi_is_counter_id(pi_p4_id_t id) { return pi_res_type_of(id) == PI_COUNTER_ID; }
static inline bool pi_is_direct_counter_id(pi_p4_id_t id) {
  return pi_res_type_of(id) == PI_DIRECT_COUNTER_ID;
}
static inline bool pi_is_meter_id(pi_p4_id_t id) { return pi_res_type_of(id) == PI_METER_ID; }
static inline bool pi_is_direct_meter_id(pi_p4_id_t id) {
  return pi_res_type_of(id) == PI_DIRECT_METER_ID;
}

typedef enum {
  PI_STATUS_SUCCESS = 0,
  PI_STATUS_ALLOC_ERROR = 1,
  PI_STATUS_INVALID_CONFIG_TYPE = 2,
  PI_STATUS_INVALID_INIT_EXTRA_PARAM = 3,
  PI_STATUS_MISSING_INIT_EXTRA_PARAM = 4,
  PI_STATUS_TARGET_TRANSPORT_ERROR = 5,
  PI_STATUS_PTHREAD_ERROR = 6,
  PI_STATUS_RPC_CONNECT_ERROR = 7,
  PI_STATUS_RPC_TRANSPORT_ERROR = 8,
  PI_STATUS_RPC_NOT_INIT = 9,
  PI_STATUS_RPC_NOT_IMPLEMENTED = 10,
  PI_STATUS_NOTIF_CONNECT_ERROR = 11,
  PI_STATUS_NOTIF_BIND_ERROR = 12,
  PI_STATUS_CONFIG_READER_ERROR = 13,
  PI_STATUS_BUFFER_ERROR = 14,
  PI_STATUS_NETV_INVALID_SIZE = 15,
  PI_STATUS_NETV_INVALID_OBJ_ID = 16,
  PI_STATUS_DEV_OUT_OF_RANGE = 17,
  PI_STATUS_DEV_ALREADY_ASSIGNED = 18,
  PI_STATUS_DEV_NOT_ASSIGNED = 19,
  PI_STATUS_INVALID_ENTRY_PROPERTY = 20,
  PI_STATUS_INVALID_ENTRY_TYPE = 21,
  PI_STATUS_UNSUPPORTED_ENTRY_PRIORITY = 22,
  PI_STATUS_UNSUPPORTED_MATCH_TYPE = 23,
  PI_STATUS_CONST_DEFAULT_ACTION = 24,
  PI_STATUS_CONST_DEFAULT_ACTION_NON_MUTABLE_PARAMS = 25,
  PI_STATUS_NOT_A_DIRECT_RES_OF_TABLE = 26,
  PI_STATUS_INVALID_TABLE_OPERATION = 27,
  PI_STATUS_METER_SPEC_NOT_SET = 28,
  PI_STATUS_COUNTER_IS_DIRECT = 29,
  PI_STATUS_COUNTER_IS_NOT_DIRECT = 30,
  PI_STATUS_METER_IS_DIRECT = 31,
  PI_STATUS_METER_IS_NOT_DIRECT = 32,
  PI_STATUS_OUT_OF_BOUND_IDX = 33,
  PI_STATUS_INVALID_RES_TYPE_ID = 34,
  PI_STATUS_ALIAS_ALREADY_EXISTS = 35,
  PI_STATUS_LEARN_NO_MATCHING_CB = 36,
  PI_STATUS_PACKETIN_NO_CB = 37,
  PI_STATUS_PACKETOUT_SEND_ERROR = 38,
  PI_STATUS_NOT_IMPLEMENTED_BY_TARGET = 39,
  /* An update of a batch failed; its error stands in the batch's status vector. */
  PI_STATUS_BATCH_UPDATE_FAILED = 40,
  /* From here on reserved for targets. */
  PI_STATUS_TARGET_ERROR = 1000
} pi_status_t;

#ifdef __cplusplus
}
#endif
