// The table functions of the PI target interface.
#include <fmt/format.h>

#include <cassert>
#include <optional>

#include "P4Runtime/companion/BatchStatus.h"
#include "P4Runtime/pi/PiContext.h"
#include "P4Runtime/pi/RunUpdate.h"
#include "P4Runtime/pipeline/PiDebug.h"
#include "P4Runtime/table/TableImpl.h"
#include "P4Runtime/table/target/TableFetch.h"
#include "PI/int/pi_int.h"
#include "PI/pi_extensions.h"
#include "PI/target/pi_tables_imp.h"
#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("KorvelPiTables");

constexpr uint32_t resourcePrefix(pi_p4_id_t id) { return id >> 24; }

MeterUnit meterUnitOf(const pi_meter_spec_t& spec) {
  return spec.meter_unit <= PI_METER_UNIT_BYTES ? static_cast<MeterUnit>(spec.meter_unit)
                                                : MeterUnitDefault;
}

MeterType meterTypeOf(const pi_meter_spec_t& spec) {
  return spec.meter_type <= PI_METER_TYPE_COLOR_UNAWARE ? static_cast<MeterType>(spec.meter_type)
                                                        : MeterTypeDefault;
}

DirectResources directResources(const pi_table_entry_t& entry) {
  DirectResources resources;
  if (!entry.direct_res_config) return resources;
  for (size_t i = 0; i < entry.direct_res_config->num_configs; ++i) {
    const pi_direct_res_config_one_t& one = entry.direct_res_config->configs[i];
    if (resourcePrefix(one.res_id) == PI_DIRECT_COUNTER_ID) {
      const auto& data = *static_cast<const pi_counter_data_t*>(one.config);
      resources.counter = p4CounterDataFactory(data.bytes, data.packets);
    } else if (resourcePrefix(one.res_id) == PI_DIRECT_METER_ID) {
      const auto& spec = *static_cast<const pi_meter_spec_t*>(one.config);
      resources.meter = p4MeterConfigFactory(spec.cir, spec.cburst, spec.pir, spec.pburst,
                                             meterUnitOf(spec), meterTypeOf(spec));
    } else {
      throw P4RuntimeException(fmt::format("Invalid resource type: {} res_id: {}",
                                           resourcePrefix(one.res_id), one.res_id),
                               0, pi_batch_current_offset(), ErrorCode::invalidArgument);
    }
  }
  return resources;
}

MatchKey keyOf(pi_p4_id_t tableId, const pi_match_key_t& matchKey) {
  return {.tableId = tableId,
          .priority = matchKey.priority,
          .bytes = {matchKey.data, matchKey.data_size}};
}

EntryHandle addEntry(TableImpl& tableImpl, pi_p4_id_t tableId, const pi_match_key_t& matchKey,
                     const pi_table_entry_t& entry) {
  const DirectResources resources = directResources(entry);
  if (entry.entry_type == PI_ACTION_ENTRY_TYPE_DATA) {
    const pi_action_data_t& action = *entry.entry.action_data;
    return tableImpl.tableEntryAdd(
        keyOf(tableId, matchKey),
        {.actionId = action.action_id, .bytes = {action.data, action.data_size}}, resources);
  }
  if (entry.entry_type == PI_ACTION_ENTRY_TYPE_INDIRECT) {
    const uint64_t handle = entry.entry.indirect_handle;
    return tableImpl.indirectTableEntryAdd(
        keyOf(tableId, matchKey), {.handle = handle, .isGroup = handle >> 32 == 1}, resources);
  }
  throw P4RuntimeException(
      fmt::format("Unhandled table_entry type: {}", static_cast<int>(entry.entry_type)), 0,
      pi_batch_current_offset(), ErrorCode::invalidArgument);
}

// Taking and giving up the lock for each update costs as much as a tenth of the update.
thread_local std::optional<Vela::ActivityLock> burst;

// The record itself stands behind the row.
void cacheMetadata(TableImpl& tableImpl, pi_p4_id_t tableId, EntryHandle handle) {
  storeOrFail(handle, [&] {
    tableImpl.cachedMetadataIs({tableResource, tableId}, handle, currentMetadata());
  });
}

}  // namespace
}  // namespace P4Runtime

using namespace P4Runtime;  // NOLINT: the entry points below stand outside any namespace

extern "C" {

pi_status_t _pi_table_entry_add(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                pi_p4_id_t table_id, const pi_match_key_t* match_key,
                                const pi_table_entry_t* table_entry, int overwrite,
                                pi_entry_handle_t* entry_handle) {
  return runUpdate([&] {
    SCRIVEL_TRACE(6, "_pi_table_entry_add", " session_handle: ", session_handle,
                  " dev_tgt: ", piDevTgtToString(dev_tgt), " table_id: ", table_id,
                  " match_key: ", piMatchKeyToString(match_key),
                  " table_entry: ", piTableEntryToString(table_entry), " overwrite: ", overwrite);
    TableImpl& tableImpl = *TheTableImpl();
    const EntryHandle handle = addEntry(tableImpl, table_id, *match_key, *table_entry);
    cacheMetadata(tableImpl, table_id, handle);
    TheBatchStatus()->newEntryHandleForBatchOffset(handle, pi_batch_current_offset());
    *entry_handle = handle;
  });
}

pi_status_t _pi_table_entry_delete_wkey(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                        pi_p4_id_t table_id, const pi_match_key_t* match_key) {
  return runUpdate([&] {
    SCRIVEL_TRACE(6, "_pi_table_entry_delete_wkey", " session_handle: ", session_handle,
                  " dev_id: ", dev_id, " table_id: ", table_id,
                  " match_key: ", piMatchKeyToString(match_key));
    TableImpl& tableImpl = *TheTableImpl();
    const EntryHandle handle = tableImpl.tableEntryDeleteWithKey(keyOf(table_id, *match_key));
    storeOrFail(handle, [&] { tableImpl.deleteCachedEntry({tableResource, table_id}, handle); });
    TheBatchStatus()->newEntryHandleForBatchOffset(handle, pi_batch_current_offset());
  });
}

// This target deletes by match key only, and changes an entry by writing over it.
pi_status_t _pi_table_entry_delete(pi_session_handle_t, pi_dev_id_t, pi_p4_id_t,
                                   pi_entry_handle_t) {
  assert(0);
  return PI_STATUS_NOT_IMPLEMENTED_BY_TARGET;
}

pi_status_t _pi_table_entry_modify(pi_session_handle_t, pi_dev_id_t, pi_p4_id_t, pi_entry_handle_t,
                                   const pi_table_entry_t*) {
  assert(0);
  return PI_STATUS_NOT_IMPLEMENTED_BY_TARGET;
}

void _pi_table_entries_coming(pi_dev_id_t, const pi_entry_handle_t* entry_handles, size_t count) {
  const Vela::ActivityLock lock;
  if (const TableImpl* tableImpl = TheTableImpl()) tableImpl->loadEntries({entry_handles, count});
}

void _pi_burst_begin(pi_dev_id_t) { burst.emplace(); }

void _pi_burst_end(pi_dev_id_t) {
  TheBatchStatus()->showAhead();
  burst.reset();
}

pi_status_t _pi_table_default_action_set(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                         pi_p4_id_t table_id, const pi_table_entry_t* table_entry) {
  const Vela::ActivityLock lock;
  SCRIVEL_TRACE(6, "_pi_table_default_action_set", " session_handle: ", session_handle,
                " dev_tgt: ", piDevTgtToString(dev_tgt), " table_id: ", table_id,
                " table_entry: ", piTableEntryToString(table_entry));
  return PI_STATUS_SUCCESS;
}

pi_status_t _pi_table_default_action_reset(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                           pi_p4_id_t table_id) {
  const Vela::ActivityLock lock;
  SCRIVEL_TRACE(6, "_pi_table_default_action_reset", " session_handle: ", session_handle,
                " dev_tgt: ", piDevTgtToString(dev_tgt), " table_id: ", table_id);
  return PI_STATUS_SUCCESS;
}

pi_status_t _pi_table_default_action_get(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                         pi_p4_id_t table_id, pi_table_entry_t* table_entry) {
  const Vela::ActivityLock lock;
  SCRIVEL_TRACE(6, "_pi_table_default_action_get", " session_handle: ", session_handle,
                " dev_id: ", dev_id, " table_id: ", table_id,
                " table_entry(ptr): ", static_cast<const void*>(table_entry));
  return PI_STATUS_SUCCESS;
}

pi_status_t _pi_table_default_action_done(pi_session_handle_t session_handle,
                                          pi_table_entry_t* table_entry) {
  const Vela::ActivityLock lock;
  SCRIVEL_TRACE(6, "_pi_table_default_action_done", " session_handle: ", session_handle,
                " table_entry(ptr): ", static_cast<const void*>(table_entry));
  return PI_STATUS_SUCCESS;
}

pi_status_t _pi_table_entries_fetch(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                    pi_p4_id_t table_id, pi_table_fetch_res_t* res) try {
  const Vela::ActivityLock lock;
  SCRIVEL_TRACE(6, "_pi_table_entries_fetch", " session_handle: ", session_handle,
                " dev_id: ", dev_id, " table_id: ", table_id);
  const TableImpl& tableImpl = *TheTableImpl();
  if (tableImpl.cacheLetGo()) return PI_STATUS_TARGET_TRANSPORT_ERROR;
  const ResourceId rid{tableResource, table_id};
  const bool mounted = tableImpl.tableCache() != nullptr;
  const size_t most = mounted ? tableImpl.handleMgr().entryHandleCount(rid) : 0;
  FetchBuffer buffer(computeFetchDataSize(tableImpl, rid, most));
  res->num_entries = mounted ? populateFetchData(tableImpl, rid, buffer) : 0;
  res->mkey_nbytes = tableImpl.tableInfo().fieldBitwidths(rid).encodedSize();
  res->entries_size = buffer.used();
  res->entries = buffer.release();
  return PI_STATUS_SUCCESS;
} catch (const std::exception& e) {
  SCRIVEL_TRACE(0, "_pi_table_entries_fetch", " table_id: ", table_id, " ", e.what());
  return PI_STATUS_ALLOC_ERROR;
}

pi_status_t _pi_table_entries_fetch_done(pi_session_handle_t session_handle,
                                         pi_table_fetch_res_t* res) {
  const Vela::ActivityLock lock;
  SCRIVEL_TRACE(6, "_pi_table_entries_fetch_done", " session_handle: ", session_handle);
  delete[] res->entries;
  res->entries = nullptr;
  return PI_STATUS_SUCCESS;
}

}  // extern "C"
