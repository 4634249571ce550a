// Learn digests: acknowledged, but nothing is done.
#include "P4Runtime/pipeline/PiDebug.h"
#include "PI/target/pi_learn_imp.h"
#include "platform/scrivel/Trace.h"
#include "platform/vela/ActivityLock.h"

namespace {
Scrivel::TraceHandle trace("KorvelPiLearn");
}

extern "C" {

pi_status_t _pi_learn_config_set(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                 pi_p4_id_t learn_id, const pi_learn_config_t* config) {
  const Vela::ActivityLock lock;
  SCRIVEL_TRACE(6, "_pi_learn_config_set", " session_handle: ", session_handle, " dev_id: ", dev_id,
                " learn_id: ", learn_id,
                " config: ", config ? P4Runtime::piLearnConfigToString(config) : "none");
  return PI_STATUS_SUCCESS;
}

pi_status_t _pi_learn_msg_ack(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                              pi_p4_id_t learn_id, pi_learn_msg_id_t msg_id) {
  const Vela::ActivityLock lock;
  SCRIVEL_TRACE(6, "_pi_learn_msg_ack", " session_handle: ", session_handle, " dev_id: ", dev_id,
                " learn_id: ", learn_id, " msg_id: ", msg_id);
  return PI_STATUS_SUCCESS;
}

pi_status_t _pi_learn_msg_done(pi_learn_msg_t*) {
  const Vela::ActivityLock lock;
  SCRIVEL_TRACE(6, "_pi_learn_msg_done");
  return PI_STATUS_SUCCESS;
}

}  // extern "C"
