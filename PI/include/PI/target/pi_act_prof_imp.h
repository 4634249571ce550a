/* What a target exports for action profiles. */
#pragma once

#include "PI/pi_act_prof.h"

#ifdef __cplusplus
extern "C" {
#endif

pi_status_t _pi_act_prof_mbr_create(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                    pi_p4_id_t act_prof_id, const pi_action_data_t* action_data,
                                    pi_indirect_handle_t* mbr_handle);
pi_status_t _pi_act_prof_mbr_delete(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                    pi_p4_id_t act_prof_id, pi_indirect_handle_t mbr_handle);
pi_status_t _pi_act_prof_mbr_modify(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                    pi_p4_id_t act_prof_id, pi_indirect_handle_t mbr_handle,
                                    const pi_action_data_t* action_data);
pi_status_t _pi_act_prof_grp_create(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                    pi_p4_id_t act_prof_id, size_t max_size,
                                    pi_indirect_handle_t* grp_handle);
pi_status_t _pi_act_prof_grp_delete(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                    pi_p4_id_t act_prof_id, pi_indirect_handle_t grp_handle);
pi_status_t _pi_act_prof_grp_add_mbr(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                     pi_p4_id_t act_prof_id, pi_indirect_handle_t grp_handle,
                                     pi_indirect_handle_t mbr_handle);
pi_status_t _pi_act_prof_grp_remove_mbr(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                        pi_p4_id_t act_prof_id, pi_indirect_handle_t grp_handle,
                                        pi_indirect_handle_t mbr_handle);

/* Keeps pi_batch_current_metadata() with a group, whose members stay as they are; for a change that
 * concerns the front end alone. It needs no word of the forwarding plane. */
pi_status_t _pi_act_prof_grp_metadata_set(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                          pi_p4_id_t act_prof_id, pi_indirect_handle_t grp_handle);

/* Layout of the result: PI/int/pi_int.h. */
pi_status_t _pi_act_prof_entries_fetch(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                       pi_p4_id_t act_prof_id, pi_act_prof_fetch_res_t* res);
pi_status_t _pi_act_prof_entries_fetch_done(pi_session_handle_t session_handle,
                                            pi_act_prof_fetch_res_t* res);

#ifdef __cplusplus
}
#endif
