/* What a target exports for learn digests. */
#pragma once

#include "PI/pi_learn.h"

#ifdef __cplusplus
extern "C" {
#endif

pi_status_t _pi_learn_config_set(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                 pi_p4_id_t learn_id, const pi_learn_config_t* config);
pi_status_t _pi_learn_msg_ack(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                              pi_p4_id_t learn_id, pi_learn_msg_id_t msg_id);
pi_status_t _pi_learn_msg_done(pi_learn_msg_t* msg);

/* Called by the target. No front end of this build takes digests: always LEARN_NO_MATCHING_CB, and
 * the message stays the target's. */
pi_status_t pi_learn_new_msg(pi_learn_msg_t* msg);

#ifdef __cplusplus
}
#endif
