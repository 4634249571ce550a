// Reads direct counters from the target.
#include "PI/frontend/read/DirectCounters.h"

#include "PI/frontend/base/Lenience.h"
#include "PI/frontend/store/KeyCodec.h"
#include "PI/pi_counter.h"
#include "PI/pi_extensions.h"

namespace pi::fe::proto {

namespace {

void dataIs(const DirectCounterPlan& counter, const pi_counter_data_t& data,
            p4::v1::CounterData* count) {
  count->Clear();
  const bool both = bothCountsRead();
  if ((counter.countsBytes || both) && (data.valid & PI_COUNTER_UNIT_BYTES) != 0) {
    count->set_byte_count(static_cast<int64_t>(data.bytes));
  }
  if ((counter.countsPackets || both) && (data.valid & PI_COUNTER_UNIT_PACKETS) != 0) {
    count->set_packet_count(static_cast<int64_t>(data.packets));
  }
}

void countOne(const TargetSession& session, const EntryStore& store, const TablePlan& table,
              const Entry& entry, Count* count) {
  pi_counter_data_t data{};
  const pi_status_t status =
      pi_counter_read_direct(session.handle, {session.deviceId, 0xffff}, table.counter->id,
                             entry.handle, PI_COUNTER_FLAGS_NONE, &data);
  if (status != PI_STATUS_SUCCESS) {
    data = {};
    // A Write may have deleted it since the Read began.
    const EntryPtr now = store.entry(entry.key());
    if (now && now->handle == entry.handle) {
      count->failure.emplace(
          code::internal,
          absl::StrCat(keyText(table, entry.keyData(), entry.priority),
                       ": the target did not give the direct counter: status ", status));
    }
  }
  dataIs(*table.counter, data, &count->data);
}

}  // namespace

void directCounts(const TargetSession& session, const EntryStore& store, const TablePlan& table,
                  std::span<const Entry* const> entries, std::vector<Count>* counts) {
  std::vector<pi_entry_handle_t> handles;
  handles.reserve(entries.size());
  for (const Entry* entry : entries) handles.push_back(entry->handle);
  std::vector<pi_counter_data_t> data(entries.size());
  const pi_status_t status =
      pi_counters_read_direct(session.handle, {session.deviceId, 0xffff}, table.counter->id,
                              handles.data(), handles.size(), PI_COUNTER_FLAGS_NONE, data.data());
  counts->resize(entries.size());
  for (size_t i = 0; i < entries.size(); ++i) {
    Count& count = (*counts)[i];
    count.failure.reset();
    if (status == PI_STATUS_SUCCESS) {
      dataIs(*table.counter, data[i], &count.data);
    } else {
      countOne(session, store, table, *entries[i], &count);
    }
  }
}

}  // namespace pi::fe::proto
