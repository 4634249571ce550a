// What this agent does not do, and says so: action profiles and packets.
#include "PI/target/pi_act_prof_imp.h"
#include "PI/target/pi_imp.h"

extern "C" {

pi_status_t _pi_act_prof_mbr_create(pi_session_handle_t, pi_dev_tgt_t, pi_p4_id_t,
                                    const pi_action_data_t*, pi_indirect_handle_t*) {
  return PI_STATUS_NOT_IMPLEMENTED_BY_TARGET;
}

pi_status_t _pi_act_prof_mbr_delete(pi_session_handle_t, pi_dev_id_t, pi_p4_id_t,
                                    pi_indirect_handle_t) {
  return PI_STATUS_NOT_IMPLEMENTED_BY_TARGET;
}

pi_status_t _pi_act_prof_mbr_modify(pi_session_handle_t, pi_dev_id_t, pi_p4_id_t,
                                    pi_indirect_handle_t, const pi_action_data_t*) {
  return PI_STATUS_NOT_IMPLEMENTED_BY_TARGET;
}

pi_status_t _pi_act_prof_grp_create(pi_session_handle_t, pi_dev_tgt_t, pi_p4_id_t, size_t,
                                    pi_indirect_handle_t*) {
  return PI_STATUS_NOT_IMPLEMENTED_BY_TARGET;
}

pi_status_t _pi_act_prof_grp_delete(pi_session_handle_t, pi_dev_id_t, pi_p4_id_t,
                                    pi_indirect_handle_t) {
  return PI_STATUS_NOT_IMPLEMENTED_BY_TARGET;
}

pi_status_t _pi_act_prof_grp_add_mbr(pi_session_handle_t, pi_dev_id_t, pi_p4_id_t,
                                     pi_indirect_handle_t, pi_indirect_handle_t) {
  return PI_STATUS_NOT_IMPLEMENTED_BY_TARGET;
}

pi_status_t _pi_act_prof_grp_remove_mbr(pi_session_handle_t, pi_dev_id_t, pi_p4_id_t,
                                        pi_indirect_handle_t, pi_indirect_handle_t) {
  return PI_STATUS_NOT_IMPLEMENTED_BY_TARGET;
}

pi_status_t _pi_act_prof_grp_metadata_set(pi_session_handle_t, pi_dev_id_t, pi_p4_id_t,
                                          pi_indirect_handle_t) {
  return PI_STATUS_NOT_IMPLEMENTED_BY_TARGET;
}

pi_status_t _pi_act_prof_entries_fetch(pi_session_handle_t, pi_dev_id_t, pi_p4_id_t,
                                       pi_act_prof_fetch_res_t*) {
  return PI_STATUS_NOT_IMPLEMENTED_BY_TARGET;
}

pi_status_t _pi_act_prof_entries_fetch_done(pi_session_handle_t, pi_act_prof_fetch_res_t*) {
  return PI_STATUS_NOT_IMPLEMENTED_BY_TARGET;
}

pi_status_t _pi_packetout_send(pi_dev_id_t, const char*, size_t) {
  return PI_STATUS_PACKETOUT_SEND_ERROR;
}

}  // extern "C"
