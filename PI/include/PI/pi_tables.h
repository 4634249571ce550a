/* Table entries of a device: writing them, and reading them back through a fetch. */
#pragma once

#include "PI/pi_base.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef uint64_t pi_entry_handle_t;
typedef uint64_t pi_indirect_handle_t;
typedef uint32_t pi_priority_t;

typedef enum {
  PI_P4INFO_MATCH_TYPE_VALID = 0,
  PI_P4INFO_MATCH_TYPE_EXACT = 1, /* optional fields too */
  PI_P4INFO_MATCH_TYPE_LPM = 2,
  PI_P4INFO_MATCH_TYPE_TERNARY = 3,
  PI_P4INFO_MATCH_TYPE_RANGE = 4,
  PI_P4INFO_MATCH_TYPE_END = 5
} pi_p4info_match_type_t;

/* Defined in PI/int/pi_int.h. Data is the fields in P4Info order, (bitwidth + 7) / 8 bytes each,
 * big-endian; exact: value; LPM: value, then the prefix length as a host-order 32-bit number;
 * ternary: value, mask. Action data: the parameters in P4Info order, packed the same way. */
typedef struct pi_match_key_s pi_match_key_t;
typedef struct pi_action_data_s pi_action_data_t;
typedef struct pi_table_fetch_res_s pi_table_fetch_res_t;

typedef enum {
  PI_ENTRY_PROPERTY_TYPE_TTL = 0,
  PI_ENTRY_PROPERTY_TYPE_END = 32
} pi_entry_property_type_t;

typedef struct {
  uint32_t valid_properties; /* bit N: the property of type N is set */
  uint32_t ttl;
} pi_entry_properties_t;

typedef enum {
  PI_ACTION_ENTRY_TYPE_NONE = 0,
  PI_ACTION_ENTRY_TYPE_DATA = 1,
  PI_ACTION_ENTRY_TYPE_INDIRECT = 2
} pi_action_entry_type_t;

/* config is a pi_counter_data_t for a direct counter and a pi_meter_spec_t for a direct meter;
 * the prefix of res_id says which. */
typedef struct {
  pi_p4_id_t res_id;
  void* config;
} pi_direct_res_config_one_t;

typedef struct {
  size_t num_configs;
  pi_direct_res_config_one_t* configs;
} pi_direct_res_config_t;

typedef struct {
  pi_action_entry_type_t entry_type;
  union {
    pi_action_data_t* action_data;
    pi_indirect_handle_t indirect_handle;
  } entry;
  const pi_entry_properties_t* entry_properties;   /* may be NULL */
  const pi_direct_res_config_t* direct_res_config; /* may be NULL */
} pi_table_entry_t;

typedef struct {
  pi_match_key_t* match_key;
  pi_table_entry_t entry;
} pi_table_ma_entry_t;

/* Each hands its arguments to the target function of the same name and returns its status. */
pi_status_t pi_table_entry_add(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                               pi_p4_id_t table_id, const pi_match_key_t* match_key,
                               const pi_table_entry_t* table_entry, int overwrite,
                               pi_entry_handle_t* entry_handle);
pi_status_t pi_table_entry_delete(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                  pi_p4_id_t table_id, pi_entry_handle_t entry_handle);
pi_status_t pi_table_entry_delete_wkey(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                       pi_p4_id_t table_id, const pi_match_key_t* match_key);
pi_status_t pi_table_entry_modify(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                  pi_p4_id_t table_id, pi_entry_handle_t entry_handle,
                                  const pi_table_entry_t* table_entry);

pi_status_t pi_table_default_action_set(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                        pi_p4_id_t table_id, const pi_table_entry_t* table_entry);
pi_status_t pi_table_default_action_reset(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                          pi_p4_id_t table_id);
pi_status_t pi_table_default_action_get(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                        pi_p4_id_t table_id, pi_table_entry_t* table_entry);
pi_status_t pi_table_default_action_done(pi_session_handle_t session_handle,
                                         pi_table_entry_t* table_entry);

/* The entries of the table as they are now. On success *res is the caller's until
 * pi_table_entries_fetch_done(); otherwise *res is NULL. One thread at a time may use a result. */
pi_status_t pi_table_entries_fetch(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                   pi_p4_id_t table_id, pi_table_fetch_res_t** res);
pi_status_t pi_table_entries_fetch_done(pi_session_handle_t session_handle,
                                        pi_table_fetch_res_t* res);
size_t pi_table_entries_num(const pi_table_fetch_res_t* res);
/* The next entry. The objects behind the pointers last until the next call with the same result.
 * OUT_OF_BOUND_IDX after the last entry. BUFFER_ERROR, for this call and all later ones, when the
 * target's bytes are cut short or no entry. */
pi_status_t pi_table_entries_next(pi_table_fetch_res_t* res, pi_table_ma_entry_t* entry,
                                  pi_entry_handle_t* entry_handle);

#ifdef __cplusplus
}
#endif
