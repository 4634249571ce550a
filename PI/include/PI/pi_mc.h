/* Multicast groups: the types of the target interface. */
#pragma once

#include "PI/pi_base.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef uint32_t pi_mc_session_handle_t;
typedef uint32_t pi_mc_grp_id_t;
typedef uint32_t pi_mc_grp_handle_t;
typedef uint32_t pi_mc_node_handle_t;
typedef pi_port_t pi_mc_port_t;
typedef int32_t pi_mc_rid_t;

#ifdef __cplusplus
}
#endif
