/* What a target exports for clone sessions. */
#pragma once

#include "PI/pi_clone.h"

#ifdef __cplusplus
extern "C" {
#endif

pi_status_t _pi_clone_session_set(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                  pi_clone_session_id_t clone_session_id,
                                  const pi_clone_session_config_t* clone_session_config);
pi_status_t _pi_clone_session_reset(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                    pi_clone_session_id_t clone_session_id);

#ifdef __cplusplus
}
#endif
