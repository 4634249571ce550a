// Counters: they are read from the counts of the forwarding agents; all else is only traced and
// acknowledged, since the server writes them as rows.
#include <string>

#include "P4Runtime/pi/PiContext.h"
#include "P4Runtime/pipeline/PiDebug.h"
#include "PI/target/pi_counter_imp.h"
#include "PI/target/pi_extensions_imp.h"
#include "platform/scrivel/Trace.h"
#include "platform/vela/ActivityLock.h"
#include "platform/vela/ActivityReadLock.h"

namespace {
Scrivel::TraceHandle trace("KorvelPiCounter");
}

namespace {

// An entry that no forwarding agent has counted for has counted nothing.
pi_counter_data_t countOf(const P4Runtime::HwStatusDir* hwStatusDir, pi_entry_handle_t entry) {
  pi_counter_data_t count{PI_COUNTER_UNIT_PACKETS | PI_COUNTER_UNIT_BYTES, 0, 0};
  if (!hwStatusDir) return count;
  const std::string flowName = Lattice::flowCounterName(entry);
  for (const Lattice::FlowCount& flow : hwStatusDir->flowCounterStatus(flowName)) {
    count.bytes += flow.bytes;
    count.packets += flow.packets;
  }
  return count;
}

// Nothing where no forwarding agent counts for the cell.
void addCell(const P4Runtime::HwStatusDir* hwStatusDir, pi_p4_id_t counter, size_t index,
             pi_counter_data_t* count) {
  if (!hwStatusDir) return;
  const auto& counts = hwStatusDir->flowCounterStatus(Lattice::cellCounterName(counter, index));
  if (counts.empty()) return;
  *count = {PI_COUNTER_UNIT_PACKETS | PI_COUNTER_UNIT_BYTES, 0, 0};
  for (const Lattice::FlowCount& one : counts) {
    count->bytes += one.bytes;
    count->packets += one.packets;
  }
}

}  // namespace

extern "C" {

pi_status_t _pi_counter_read(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                             pi_p4_id_t counter_id, size_t index, int flags,
                             pi_counter_data_t* counter_data) {
  const Vela::ActivityReadLock lock;
  SCRIVEL_TRACE(6, "_pi_counter_read", " session_handle: ", session_handle,
                " dev_tgt: ", P4Runtime::piDevTgtToString(dev_tgt), " counter_id: ", counter_id,
                " index: ", index, " flags: ", Scrivel::hex(flags),
                " counter_data=", P4Runtime::piCounterDataToString(counter_data));
  addCell(P4Runtime::ThePiContext()->hwStatusDir().get(), counter_id, index, counter_data);
  return PI_STATUS_SUCCESS;
}

void _pi_counter_cells_read(pi_dev_id_t dev_id, pi_p4_id_t counter_id, size_t first, size_t count,
                            pi_counter_data_t* counter_data) {
  const Vela::ActivityReadLock lock;
  SCRIVEL_TRACE(6, "_pi_counter_cells_read", " dev_id: ", dev_id, " counter_id: ", counter_id,
                " first: ", first, " count: ", count);
  const auto hwStatusDir = P4Runtime::ThePiContext()->hwStatusDir();
  for (size_t i = 0; i < count; ++i) {
    counter_data[i] = {};
    addCell(hwStatusDir.get(), counter_id, first + i, &counter_data[i]);
  }
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

pi_status_t _pi_counter_read_direct(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                    pi_p4_id_t counter_id, pi_entry_handle_t entry_handle,
                                    int flags, pi_counter_data_t* counter_data) {
  const Vela::ActivityReadLock lock;
  SCRIVEL_TRACE(6, "_pi_counter_read_direct", " session_handle: ", session_handle,
                " dev_tgt: ", P4Runtime::piDevTgtToString(dev_tgt), " counter_id: ", counter_id,
                " entry_handle: ", entry_handle, " flags: ", Scrivel::hex(flags));
  *counter_data = countOf(P4Runtime::ThePiContext()->hwStatusDir().get(), entry_handle);
  return PI_STATUS_SUCCESS;
}

pi_status_t _pi_counters_read_direct(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                     pi_p4_id_t counter_id, const pi_entry_handle_t* entry_handles,
                                     size_t count, int flags, pi_counter_data_t* counter_data) {
  const Vela::ActivityReadLock lock;
  SCRIVEL_TRACE(6, "_pi_counters_read_direct", " session_handle: ", session_handle,
                " dev_tgt: ", P4Runtime::piDevTgtToString(dev_tgt), " counter_id: ", counter_id,
                " entries: ", count, " flags: ", Scrivel::hex(flags));
  const auto hwStatusDir = P4Runtime::ThePiContext()->hwStatusDir();
  for (size_t i = 0; i < count; ++i) {
    counter_data[i] = countOf(hwStatusDir.get(), entry_handles[i]);
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
