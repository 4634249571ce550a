/* Meters, indexed and direct. */
#pragma once

#include "PI/pi_base.h"
#include "PI/pi_tables.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
  PI_METER_UNIT_DEFAULT = 0,
  PI_METER_UNIT_PACKETS = 1,
  PI_METER_UNIT_BYTES = 2
} pi_meter_unit_t;

typedef enum {
  PI_METER_TYPE_DEFAULT = 0,
  PI_METER_TYPE_COLOR_AWARE = 1,
  PI_METER_TYPE_COLOR_UNAWARE = 2
} pi_meter_type_t;

/* Rates and bursts in meter_unit, rates per second. */
typedef struct {
  uint64_t cir;
  uint32_t cburst;
  uint64_t pir;
  uint32_t pburst;
  pi_meter_unit_t meter_unit;
  pi_meter_type_t meter_type;
} pi_meter_spec_t;

/* Each hands its arguments to the target function of the same name and returns its status. */
pi_status_t pi_meter_read(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                          pi_p4_id_t meter_id, size_t index, pi_meter_spec_t* meter_spec);
pi_status_t pi_meter_set(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                         pi_p4_id_t meter_id, size_t index, const pi_meter_spec_t* meter_spec);
pi_status_t pi_meter_read_direct(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                 pi_p4_id_t meter_id, pi_entry_handle_t entry_handle,
                                 pi_meter_spec_t* meter_spec);
pi_status_t pi_meter_set_direct(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                pi_p4_id_t meter_id, pi_entry_handle_t entry_handle,
                                const pi_meter_spec_t* meter_spec);

#ifdef __cplusplus
}
#endif
