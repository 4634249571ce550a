// Counters: direct ones are read from what the forwarding agents have counted; all else is only
// traced and acknowledged, and the server refuses it.
#include <string>

#include "P4Runtime/pi/PiContext.h"
#include "P4Runtime/pipeline/PiDebug.h"
#include "PI/target/pi_counter_imp.h"
#include "platform/scrivel/Trace.h"
#include "platform/vela/ActivityLock.h"

namespace {
Scrivel::TraceHandle trace("KorvelPiCounter");
}

extern "C" {

pi_status_t _pi_counter_read(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                             pi_p4_id_t counter_id, size_t index, int flags,
                             pi_counter_data_t* counter_data) {
  const Vela::ActivityLock lock;
  SCRIVEL_TRACE(6, "_pi_counter_read", " session_handle: ", session_handle,
                " dev_tgt: ", P4Runtime::piDevTgtToString(dev_tgt), " counter_id: ", counter_id,
                " index: ", index, " flags: ", Scrivel::hex(flags),
                " counter_data=", P4Runtime::piCounterDataToString(counter_data));
  return PI_STATUS_SUCCESS;
}

pi_status_t _pi_counter_write(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                              pi_p4_id_t counter_id, size_t index,
                              const pi_counter_data_t* counter_data) {
  const Vela::ActivityLock lock;
  SCRIVEL_TRACE(6, "_pi_counter_write", " session_handle: ", session_handle,
                " dev_tgt: ", P4Runtime::piDevTgtToString(dev_tgt), " counter_id: ", counter_id,
                " index: ", index,
                " counter_data=", P4Runtime::piCounterDataToString(counter_data));
  return PI_STATUS_SUCCESS;
}

// An entry that no forwarding agent has counted for has counted nothing.
pi_status_t _pi_counter_read_direct(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                    pi_p4_id_t counter_id, pi_entry_handle_t entry_handle,
                                    int flags, pi_counter_data_t* counter_data) {
  const Vela::ActivityLock lock;
  SCRIVEL_TRACE(6, "_pi_counter_read_direct", " session_handle: ", session_handle,
                " dev_tgt: ", P4Runtime::piDevTgtToString(dev_tgt), " counter_id: ", counter_id,
                " entry_handle: ", entry_handle, " flags: ", Scrivel::hex(flags));
  counter_data->valid = PI_COUNTER_UNIT_PACKETS | PI_COUNTER_UNIT_BYTES;
  counter_data->bytes = 0;
  counter_data->packets = 0;
  const auto hwStatusDir = P4Runtime::ThePiContext()->hwStatusDir();
  if (!hwStatusDir) return PI_STATUS_SUCCESS;
  const std::string flowName = Lattice::flowCounterName(entry_handle);
  for (const Lattice::FlowCount& count : hwStatusDir->flowCounterStatus(flowName)) {
    counter_data->bytes += count.bytes;
    counter_data->packets += count.packets;
  }
  return PI_STATUS_SUCCESS;
}

pi_status_t _pi_counter_write_direct(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                     pi_p4_id_t counter_id, pi_entry_handle_t entry_handle,
                                     const pi_counter_data_t* counter_data) {
  const Vela::ActivityLock lock;
  SCRIVEL_TRACE(6, "_pi_counter_write_direct", " session_handle: ", session_handle,
                " dev_tgt: ", P4Runtime::piDevTgtToString(dev_tgt), " counter_id: ", counter_id,
                " entry_handle: ", entry_handle,
                " counter_data=", P4Runtime::piCounterDataToString(counter_data));
  return PI_STATUS_SUCCESS;
}

pi_status_t _pi_counter_hw_sync(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                pi_p4_id_t counter_id, PICounterHwSyncCb cb, void* cb_cookie) {
  const Vela::ActivityLock lock;
  SCRIVEL_TRACE(6, "_pi_counter_hw_sync", " session_handle: ", session_handle,
                " dev_tgt: ", P4Runtime::piDevTgtToString(dev_tgt), " counter_id: ", counter_id,
                " cb: ", reinterpret_cast<const void*>(cb), " cb_cookie: ", cb_cookie);
  return PI_STATUS_SUCCESS;
}

}  // extern "C"
