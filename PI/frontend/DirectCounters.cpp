// Reads direct counters from the target.
#include "PI/frontend/DirectCounters.h"

#include "PI/frontend/KeyCodec.h"
#include "PI/frontend/Refusal.h"
#include "PI/pi_counter.h"

namespace pi::fe::proto {

p4::v1::CounterData directCount(const TargetSession& session, const EntryStore& store,
                                const TablePlan& table, const Entry& entry) {
  const DirectCounterPlan& counter = *table.counter;
  pi_counter_data_t data{};
  const pi_status_t status =
      pi_counter_read_direct(session.handle, {session.deviceId, 0xffff}, counter.id, entry.handle,
                             PI_COUNTER_FLAGS_NONE, &data);
  p4::v1::CounterData count;
  if (status != PI_STATUS_SUCCESS) {
    // A Write may have deleted it since the Read began.
    const EntryPtr now = store.entry(entry.key());
    if (!now || now->handle != entry.handle) return count;
    refuse(code::internal, keyText(table, entry.keyData(), entry.priority),
           ": the target did not give the direct counter: status ", status);
  }
  if (counter.countsBytes && (data.valid & PI_COUNTER_UNIT_BYTES) != 0) {
    count.set_byte_count(static_cast<int64_t>(data.bytes));
  }
  if (counter.countsPackets && (data.valid & PI_COUNTER_UNIT_PACKETS) != 0) {
    count.set_packet_count(static_cast<int64_t>(data.packets));
  }
  return count;
}

}  // namespace pi::fe::proto
