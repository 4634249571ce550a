/* What a target exports for multicast. */
#pragma once

#include "PI/pi_mc.h"

#ifdef __cplusplus
extern "C" {
#endif

pi_status_t _pi_mc_session_init(pi_mc_session_handle_t* session_handle);
pi_status_t _pi_mc_session_cleanup(pi_mc_session_handle_t session_handle);
pi_status_t _pi_mc_grp_create(pi_mc_session_handle_t session_handle, pi_dev_id_t dev_id,
                              pi_mc_grp_id_t grp_id, pi_mc_grp_handle_t* grp_handle);
pi_status_t _pi_mc_grp_delete(pi_mc_session_handle_t session_handle, pi_dev_id_t dev_id,
                              pi_mc_grp_handle_t grp_handle);
pi_status_t _pi_mc_node_create(pi_mc_session_handle_t session_handle, pi_dev_id_t dev_id,
                               pi_mc_rid_t rid, size_t eg_ports_count, const pi_mc_port_t* eg_ports,
                               pi_mc_node_handle_t* node_handle);
pi_status_t _pi_mc_node_modify(pi_mc_session_handle_t session_handle, pi_dev_id_t dev_id,
                               pi_mc_node_handle_t node_handle, size_t eg_ports_count,
                               const pi_mc_port_t* eg_ports);
pi_status_t _pi_mc_node_delete(pi_mc_session_handle_t session_handle, pi_dev_id_t dev_id,
                               pi_mc_node_handle_t node_handle);
pi_status_t _pi_mc_grp_attach_node(pi_mc_session_handle_t session_handle, pi_dev_id_t dev_id,
                                   pi_mc_grp_handle_t grp_handle, pi_mc_node_handle_t node_handle);
pi_status_t _pi_mc_grp_detach_node(pi_mc_session_handle_t session_handle, pi_dev_id_t dev_id,
                                   pi_mc_grp_handle_t grp_handle, pi_mc_node_handle_t node_handle);

#ifdef __cplusplus
}
#endif
