// Clone sessions: not supported by this target, and refused.
#include "P4Runtime/pipeline/PiDebug.h"
#include "PI/target/pi_clone_imp.h"
#include "platform/scrivel/Trace.h"
#include "platform/vela/ActivityLock.h"

namespace {
Scrivel::TraceHandle trace("KorvelPiClone");
}

extern "C" {

pi_status_t _pi_clone_session_set(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                  pi_clone_session_id_t clone_session_id,
                                  const pi_clone_session_config_t*) {
  const Vela::ActivityLock lock;
  SCRIVEL_TRACE(6, "_pi_clone_session_set", "session_handle: ", session_handle,
                "dev_tgt: ", P4Runtime::piDevTgtToString(dev_tgt),
                "clone_session_id: ", clone_session_id);
  return PI_STATUS_NOT_IMPLEMENTED_BY_TARGET;
}

pi_status_t _pi_clone_session_reset(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                    pi_clone_session_id_t clone_session_id) {
  const Vela::ActivityLock lock;
  SCRIVEL_TRACE(6, "_pi_clone_session_reset", "session_handle: ", session_handle,
                "dev_tgt: ", P4Runtime::piDevTgtToString(dev_tgt),
                "clone_session_id: ", clone_session_id);
  return PI_STATUS_NOT_IMPLEMENTED_BY_TARGET;
}

}  // extern "C"
