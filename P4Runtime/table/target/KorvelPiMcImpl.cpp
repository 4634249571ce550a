// Multicast: acknowledged, but nothing is done and no handle is given out. Unlike clone sessions
// these return success; kept for compatibility.
#include "PI/target/pi_mc_imp.h"
#include "platform/scrivel/Trace.h"
#include "platform/vela/ActivityLock.h"

namespace {
Scrivel::TraceHandle trace("KorvelPiMc");
}

extern "C" {

pi_status_t _pi_mc_session_init(pi_mc_session_handle_t*) {
  const Vela::ActivityLock lock;
  SCRIVEL_TRACE(6, "_pi_mc_session_init");
  return PI_STATUS_SUCCESS;
}

pi_status_t _pi_mc_session_cleanup(pi_mc_session_handle_t session_handle) {
  const Vela::ActivityLock lock;
  SCRIVEL_TRACE(6, "_pi_mc_session_cleanup", "session_handle: ", session_handle);
  return PI_STATUS_SUCCESS;
}

pi_status_t _pi_mc_grp_create(pi_mc_session_handle_t session_handle, pi_dev_id_t dev_id,
                              pi_mc_grp_id_t grp_id, pi_mc_grp_handle_t*) {
  const Vela::ActivityLock lock;
  SCRIVEL_TRACE(6, "_pi_mc_grp_create", "session_handle: ", session_handle, "dev_id: ", dev_id,
                "grp_id: ", grp_id);
  return PI_STATUS_SUCCESS;
}

pi_status_t _pi_mc_grp_delete(pi_mc_session_handle_t session_handle, pi_dev_id_t dev_id,
                              pi_mc_grp_handle_t grp_handle) {
  const Vela::ActivityLock lock;
  SCRIVEL_TRACE(6, "_pi_mc_grp_delete", "session_handle: ", session_handle, "dev_id: ", dev_id,
                "grp_handle: ", grp_handle);
  return PI_STATUS_SUCCESS;
}

pi_status_t _pi_mc_node_create(pi_mc_session_handle_t session_handle, pi_dev_id_t dev_id,
                               pi_mc_rid_t, size_t eg_ports_count, const pi_mc_port_t*,
                               pi_mc_node_handle_t*) {
  const Vela::ActivityLock lock;
  SCRIVEL_TRACE(6, "_pi_mc_node_create", "session_handle: ", session_handle, "dev_id: ", dev_id,
                "eg_ports_count: ", eg_ports_count);
  return PI_STATUS_SUCCESS;
}

pi_status_t _pi_mc_node_modify(pi_mc_session_handle_t session_handle, pi_dev_id_t dev_id,
                               pi_mc_node_handle_t node_handle, size_t eg_ports_count,
                               const pi_mc_port_t*) {
  const Vela::ActivityLock lock;
  SCRIVEL_TRACE(6, "_pi_mc_node_modify", "session_handle: ", session_handle, "dev_id: ", dev_id,
                "node_handle: ", node_handle, "eg_ports_count: ", eg_ports_count);
  return PI_STATUS_SUCCESS;
}

pi_status_t _pi_mc_node_delete(pi_mc_session_handle_t session_handle, pi_dev_id_t dev_id,
                               pi_mc_node_handle_t node_handle) {
  const Vela::ActivityLock lock;
  SCRIVEL_TRACE(6, "_pi_mc_node_delete", "session_handle: ", session_handle, "dev_id: ", dev_id,
                "node_handle: ", node_handle);
  return PI_STATUS_SUCCESS;
}

pi_status_t _pi_mc_grp_attach_node(pi_mc_session_handle_t session_handle, pi_dev_id_t dev_id,
                                   pi_mc_grp_handle_t grp_handle, pi_mc_node_handle_t) {
  const Vela::ActivityLock lock;
  SCRIVEL_TRACE(6, "_pi_mc_grp_attach_node", "session_handle: ", session_handle, "dev_id: ", dev_id,
                "grp_handle: ", grp_handle);
  return PI_STATUS_SUCCESS;
}

pi_status_t _pi_mc_grp_detach_node(pi_mc_session_handle_t session_handle, pi_dev_id_t dev_id,
                                   pi_mc_grp_handle_t grp_handle, pi_mc_node_handle_t node_handle) {
  const Vela::ActivityLock lock;
  SCRIVEL_TRACE(6, "_pi_mc_grp_detach_node", "session_handle: ", session_handle, "dev_id: ", dev_id,
                "grp_handle: ", grp_handle, "node_handle: ", node_handle);
  return PI_STATUS_SUCCESS;
}

}  // extern "C"
