/* Clone sessions: the types of the target interface. */
#pragma once

#include "PI/pi_base.h"
#include "PI/pi_mc.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef uint16_t pi_clone_session_id_t;

typedef enum {
  PI_CLONE_DIRECTION_NONE = 0,
  PI_CLONE_DIRECTION_I2E = 1,
  PI_CLONE_DIRECTION_E2E = 2,
  PI_CLONE_DIRECTION_BOTH = 3
} pi_clone_direction_t;

typedef struct {
  pi_clone_direction_t direction;
  pi_port_t eg_port;
  bool eg_port_valid;
  pi_mc_grp_id_t mc_grp_id;
  bool mc_grp_id_valid;
  bool copy_to_cpu;
  uint16_t max_packet_length;
  uint32_t cos;
} pi_clone_session_config_t;

#ifdef __cplusplus
}
#endif
