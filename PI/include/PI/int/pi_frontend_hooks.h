/* The front end's functions for reports that the target makes on its own account: settled writes
 * and, after a restart, all surviving objects. */
#pragma once

#include "PI/pi_base.h"
#include "PI/pi_extensions.h"
#include "PI/pi_tables.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Called on the target's threads, as a rule with the target's lock held: a hook must not wait for
 * anything that waits for the target. Pointers last for the call. Only members that say so are
 * NULL; the functions of PI/pi_extensions.h describe the arguments. */
typedef struct {
  /* NULL for a front end to which the status vector of a batch says enough. */
  void (*entry_status_changed)(void* cookie, pi_dev_id_t dev_id, pi_entry_handle_t entry_handle,
                               uint32_t error_code);
  pi_status_t (*restore_table_entry)(void* cookie, pi_dev_id_t dev_id, pi_p4_id_t table_id,
                                     const pi_match_key_t* match_key,
                                     const pi_table_entry_t* table_entry,
                                     pi_entry_handle_t entry_handle, uint64_t controller_metadata,
                                     const char* metadata, size_t metadata_size);
  pi_status_t (*restore_action_profile_member)(void* cookie, pi_dev_id_t dev_id,
                                               pi_p4_id_t act_prof_id,
                                               const pi_action_data_t* action_data,
                                               uint32_t controller_member_id,
                                               pi_indirect_handle_t mbr_handle,
                                               const char* metadata, size_t metadata_size);
  pi_status_t (*restore_action_profile_group)(void* cookie, pi_dev_id_t dev_id,
                                              pi_p4_id_t act_prof_id, uint32_t controller_group_id,
                                              const pi_indirect_handle_t* members,
                                              size_t num_members, pi_indirect_handle_t grp_handle,
                                              const char* metadata, size_t metadata_size);
  pi_status_t (*constant_table_entry)(void* cookie, pi_dev_id_t dev_id, pi_p4_id_t table_id,
                                      const pi_match_key_t* match_key,
                                      const pi_table_entry_t* table_entry,
                                      pi_entry_handle_t entry_handle);
  pi_status_t (*restore_done)(void* cookie, pi_dev_id_t dev_id);
  /* NULL for a front end that needs no word ahead. */
  pi_status_t (*restore_expect)(void* cookie, pi_dev_id_t dev_id, size_t table_entries);
  /* NULL for a front end that keeps nothing. */
  pi_status_t (*restore_keep)(void* cookie, pi_dev_id_t dev_id, pi_p4_id_t* table_ids,
                              size_t* count);
  /* NULL for a front end that passes no digests on, or no idle entries. */
  pi_status_t (*digest_message)(void* cookie, pi_dev_id_t dev_id, pi_p4_id_t digest_id,
                                const char* data, size_t size);
  pi_status_t (*table_entry_idle)(void* cookie, pi_dev_id_t dev_id, pi_p4_id_t table_id,
                                  const pi_match_key_t* match_key);
  /* NULL for a front end that knows no names. */
  pi_status_t (*fixed_names)(void* cookie, pi_dev_id_t dev_id, pi_fixed_name_t* names,
                             size_t count);
} pi_frontend_hooks_t;

/* Replaces the device's former hooks; copies *hooks, borrows the cookie. The device need not be
 * assigned yet. BUFFER_ERROR when a member is NULL that may not be. */
pi_status_t pi_frontend_hooks_set(pi_dev_id_t dev_id, const pi_frontend_hooks_t* hooks,
                                  void* cookie);
/* No hook of the device is running any more when this returns: call it without a lock that a hook
 * takes, and never from a hook. DEV_NOT_ASSIGNED when the device has no hooks. */
pi_status_t pi_frontend_hooks_clear(pi_dev_id_t dev_id);

#ifdef __cplusplus
}
#endif
