/* Functions by which the library tells its target about the update being run, and the target tells
 * the library of events on its own account. */
#pragma once

#include "PI/pi_base.h"
#include "PI/pi_counter.h"
#include "PI/pi_tables.h"

#ifdef __cplusplus
extern "C" {
#endif

/* What a target says that begins no batch since nobody is there to program it. */
#define PI_STATUS_NO_FORWARDING_AGENT ((pi_status_t)(PI_STATUS_TARGET_ERROR + 1))

/* The update of a batch that the calling thread is running; each is 0 (metadata empty) outside of
 * one. */
uint32_t pi_batch_current_offset(void); /* its position in the Write request */
/* The controller's id of the member or group being written. */
uint32_t pi_batch_current_controller_id(void);
uint64_t pi_batch_current_controller_metadata(void);
/* The bytes belong to the front end and last until the update has been run. */
void pi_batch_current_metadata(const char** data, size_t* size);

/* For the front end, on the thread that runs the batch: before each update, and after the last. */
void pi_batch_current_set(uint32_t offset, uint32_t controller_id, uint64_t controller_metadata,
                          const char* metadata, size_t metadata_size);
void pi_batch_current_clear(void);
/* Whether the batches that the thread begins are worth a processor that looks for their outcome, so
 * that nobody need be woken: there is little else to be done meanwhile. 1 unless set. */
int pi_batch_urgent(void);
void pi_batch_urgent_set(int urgent);

/* The fate of the batches that the thread begins: each update has its own unless set. A whole batch
 * has one: when any update of it fails, or the front end says so before it ends the batch, the
 * target undoes all of it, and gives ABORTED for the updates that were not at fault. A target that
 * cannot do it begins no such batch: PI_STATUS_NOT_IMPLEMENTED_BY_TARGET. */
typedef enum {
  PI_BATCH_SINGLE = 0,
  PI_BATCH_WHOLE = 1,         /* packets may see a part of it */
  PI_BATCH_WHOLE_AT_ONCE = 2, /* each packet sees all or nothing of it */
} pi_batch_fate_t;
pi_batch_fate_t pi_batch_fate(void);
void pi_batch_fate_set(pi_batch_fate_t fate);
int pi_batch_failed(void);
void pi_batch_failed_set(int failed); /* of the thread's current batch; cleared by its beginning */

/* For the front end: updates of these entries follow soon. A target may have memory fetched that it
 * will need for them. A handle need not be an entry's. */
void pi_table_entries_coming(pi_dev_id_t dev_id, const pi_entry_handle_t* entry_handles,
                             size_t count);
/* For the front end: until the end of the burst, the thread's calls come one right after another,
 * at most some dozen of them. A target may keep its lock meanwhile. The front end holds no lock
 * under which others call the target. */
void pi_burst_begin(pi_dev_id_t dev_id);
void pi_burst_end(pi_dev_id_t dev_id);

/* pi_counter_read_direct() for many entries at once; one count for each handle. When it does not
 * succeed no count counts. */
pi_status_t pi_counters_read_direct(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                    pi_p4_id_t counter_id, const pi_entry_handle_t* entry_handles,
                                    size_t count, int flags, pi_counter_data_t* counter_data);

/* The target's word that an entry's pending status is settled; error code 0 is success.
 * DEV_NOT_ASSIGNED when the device has no front end, as for all functions below. */
pi_status_t pi_table_pending_entry_status_changed(pi_dev_id_t dev_id,
                                                  const pi_entry_handle_t* entry_handle,
                                                  uint32_t error_code);
/* The same of many entries. */
pi_status_t pi_table_pending_entries_status_changed(pi_dev_id_t dev_id,
                                                    const pi_entry_handle_t* entry_handles,
                                                    size_t count, uint32_t error_code);

/* News of the data plane for controllers, which may be dropped. A message of a digest that a
 * controller has started: its numbers bit behind bit in the order of declaration, big-endian,
 * filled up to whole bytes at the end. BUFFER_ERROR when it has another size; LEARN_NO_MATCHING_CB
 * when no controller wants the digest. */
pi_status_t pi_digest_message(pi_dev_id_t dev_id, pi_p4_id_t digest_id, const char* data,
                              size_t size);
/* An entry that no packet has met for its idle time-out. NETV_INVALID_OBJ_ID when the table is
 * unknown; an entry that is gone is no error. */
pi_status_t pi_table_entry_idle(pi_dev_id_t dev_id, pi_p4_id_t table_id,
                                const pi_match_key_t* match_key);

/* After a restart the target hands back all surviving objects, members before groups before table
 * entries, before any controller's request is served; then it says that it has restored all. The
 * metadata are the bytes that stood in pi_batch_current_metadata() when the object was last
 * written. A member or group that the front end made on its own account has the controller's id 0.
 * An entry with a direct meter that was set comes with its direct_res_config. */
/* So many table entries are about to come, or a little more or less: for the front end to make
 * room. */
pi_status_t pi_restore_expect(pi_dev_id_t dev_id, size_t table_entries);
/* Before all objects, where the target has kept the entries of these tables since the front end
 * last had all of them: under the former pipeline, which defines the tables alike. The front end
 * takes its entries of them over, and leaves those tables in the list; the entries of these are not
 * handed back. */
pi_status_t pi_restore_keep(pi_dev_id_t dev_id, pi_p4_id_t* table_ids, size_t* count);
pi_status_t pi_restore_table_entry_state(pi_dev_id_t dev_id, pi_p4_id_t table_id,
                                         const pi_match_key_t* match_key,
                                         const pi_table_entry_t* table_entry,
                                         pi_entry_handle_t entry_handle,
                                         uint64_t controller_metadata, const char* metadata,
                                         size_t metadata_size);
pi_status_t pi_restore_action_profile_member_state(pi_dev_id_t dev_id, pi_p4_id_t act_prof_id,
                                                   const pi_action_data_t* action_data,
                                                   uint32_t controller_member_id,
                                                   pi_indirect_handle_t mbr_handle,
                                                   const char* metadata, size_t metadata_size);
pi_status_t pi_restore_action_profile_group_state(pi_dev_id_t dev_id, pi_p4_id_t act_prof_id,
                                                  uint32_t controller_group_id,
                                                  const pi_indirect_handle_t* members,
                                                  size_t num_members,
                                                  pi_indirect_handle_t grp_handle,
                                                  const char* metadata, size_t metadata_size);
/* An entry that the target programs by itself, and that no controller may change or delete: before
 * the restore is done. A table_entry of NULL: it stands as it was restored. */
pi_status_t pi_constant_table_entry_state(pi_dev_id_t dev_id, pi_p4_id_t table_id,
                                          const pi_match_key_t* match_key,
                                          const pi_table_entry_t* table_entry,
                                          pi_entry_handle_t entry_handle);
pi_status_t pi_restore_done(pi_dev_id_t dev_id);

/* A name of a translated type that the configuration fixes to a number below 2^31, for as long as
 * the device has such a type. The bytes belong to the caller. */
typedef struct {
  const char* type; /* as the P4Info calls it */
  const char* name;
  size_t name_size;
  uint32_t number;
  int fault; /* set by the call */
} pi_fixed_name_t;
enum {
  PI_FIXED_NAME_TAKEN = 0,        /* or the pipeline has no such type */
  PI_FIXED_NAME_HAS_NUMBER = 1,   /* the name is in use with another number, which stays */
  PI_FIXED_NAME_NUMBER_TAKEN = 2, /* the number is in use for another name, which stays */
};
/* All of them, in place of the former ones: at any time, and once before a restore is done. */
pi_status_t pi_fixed_names_set(pi_dev_id_t dev_id, pi_fixed_name_t* names, size_t count);

#ifdef __cplusplus
}
#endif
