/* Action profiles: members, groups of members, and reading both back through a fetch. */
#pragma once

#include "PI/pi_base.h"
#include "PI/pi_tables.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Defined in PI/int/pi_int.h. */
typedef struct pi_act_prof_fetch_res_s pi_act_prof_fetch_res_t;

/* Each hands its arguments to the target function of the same name and returns its status. */
pi_status_t pi_act_prof_mbr_create(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                   pi_p4_id_t act_prof_id, const pi_action_data_t* action_data,
                                   pi_indirect_handle_t* mbr_handle);
pi_status_t pi_act_prof_mbr_delete(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                   pi_p4_id_t act_prof_id, pi_indirect_handle_t mbr_handle);
pi_status_t pi_act_prof_mbr_modify(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                   pi_p4_id_t act_prof_id, pi_indirect_handle_t mbr_handle,
                                   const pi_action_data_t* action_data);
pi_status_t pi_act_prof_grp_create(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                   pi_p4_id_t act_prof_id, size_t max_size,
                                   pi_indirect_handle_t* grp_handle);
pi_status_t pi_act_prof_grp_delete(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                   pi_p4_id_t act_prof_id, pi_indirect_handle_t grp_handle);
pi_status_t pi_act_prof_grp_add_mbr(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                    pi_p4_id_t act_prof_id, pi_indirect_handle_t grp_handle,
                                    pi_indirect_handle_t mbr_handle);
pi_status_t pi_act_prof_grp_remove_mbr(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                       pi_p4_id_t act_prof_id, pi_indirect_handle_t grp_handle,
                                       pi_indirect_handle_t mbr_handle);

/* This build's: see PI/target/pi_act_prof_imp.h. */
pi_status_t pi_act_prof_grp_metadata_set(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                         pi_p4_id_t act_prof_id, pi_indirect_handle_t grp_handle);

/* Members and groups of the profile as they are now. On success *res is the caller's until
 * pi_act_prof_entries_fetch_done(); otherwise *res is NULL. One thread at a time may use it. */
pi_status_t pi_act_prof_entries_fetch(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                      pi_p4_id_t act_prof_id, pi_act_prof_fetch_res_t** res);
pi_status_t pi_act_prof_entries_fetch_done(pi_session_handle_t session_handle,
                                           pi_act_prof_fetch_res_t* res);
size_t pi_act_prof_mbrs_num(const pi_act_prof_fetch_res_t* res);
size_t pi_act_prof_grps_num(const pi_act_prof_fetch_res_t* res);
/* The next member or group. The objects behind the pointers last until the next call of the same
 * function with the same result. OUT_OF_BOUND_IDX after the last one. BUFFER_ERROR, for this call
 * and all later ones, when the target's bytes are cut short or inconsistent. */
pi_status_t pi_act_prof_mbrs_next(pi_act_prof_fetch_res_t* res, pi_action_data_t** action_data,
                                  pi_indirect_handle_t* mbr_handle);
pi_status_t pi_act_prof_grps_next(pi_act_prof_fetch_res_t* res, pi_indirect_handle_t** mbr_handles,
                                  size_t* num_mbrs, pi_indirect_handle_t* grp_handle);

#ifdef __cplusplus
}
#endif
