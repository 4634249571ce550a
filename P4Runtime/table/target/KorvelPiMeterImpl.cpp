// Meters: only traced and acknowledged. A direct meter's setting travels with its table entry.
#include "P4Runtime/pipeline/PiDebug.h"
#include "PI/target/pi_meter_imp.h"
#include "platform/scrivel/Trace.h"
#include "platform/vela/ActivityLock.h"

namespace {
Scrivel::TraceHandle trace("KorvelPiMeter");
}

extern "C" {

pi_status_t _pi_meter_read(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                           pi_p4_id_t meter_id, size_t index, pi_meter_spec_t*) {
  const Vela::ActivityLock lock;
  SCRIVEL_TRACE(6, "_pi_meter_read", " session_handle: ", session_handle,
                " dev_tgt: ", P4Runtime::piDevTgtToString(dev_tgt), " meter_id: ", meter_id,
                " index: ", index);
  return PI_STATUS_SUCCESS;
}

pi_status_t _pi_meter_set(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                          pi_p4_id_t meter_id, size_t index, const pi_meter_spec_t* meter_spec) {
  const Vela::ActivityLock lock;
  SCRIVEL_TRACE(6, "_pi_meter_set", " session_handle: ", session_handle,
                " dev_tgt: ", P4Runtime::piDevTgtToString(dev_tgt), " meter_id: ", meter_id,
                " index: ", index, " meter_spec: ", P4Runtime::piMeterSpecToString(meter_spec));
  return PI_STATUS_SUCCESS;
}

pi_status_t _pi_meter_read_direct(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                  pi_p4_id_t meter_id, pi_entry_handle_t entry_handle,
                                  pi_meter_spec_t*) {
  const Vela::ActivityLock lock;
  SCRIVEL_TRACE(6, "_pi_meter_read_direct", " session_handle: ", session_handle,
                " dev_tgt: ", P4Runtime::piDevTgtToString(dev_tgt), " meter_id: ", meter_id,
                " entry_handle: ", entry_handle);
  return PI_STATUS_SUCCESS;
}

pi_status_t _pi_meter_set_direct(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                 pi_p4_id_t meter_id, pi_entry_handle_t entry_handle,
                                 const pi_meter_spec_t* meter_spec) {
  const Vela::ActivityLock lock;
  SCRIVEL_TRACE(6, "_pi_meter_set_direct", " session_handle: ", session_handle,
                " dev_tgt: ", P4Runtime::piDevTgtToString(dev_tgt), " meter_id: ", meter_id,
                " entry_handle: ", entry_handle,
                " meter_spec: ", P4Runtime::piMeterSpecToString(meter_spec));
  return PI_STATUS_SUCCESS;
}

}  // extern "C"
