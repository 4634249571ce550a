#include "P4Runtime/table/restore/EntryRestorer.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

#include "P4Runtime/table/records/CacheWalk.h"
#include "P4Runtime/table/records/HandleReservation.h"
#include "PI/int/pi_int.h"
#include "PI/pi.h"
#include "PI/pi_extensions.h"
#include "platform/lattice/types/DirectColumns.h"
#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("TableImpl");

char* chars(std::span<const uint8_t> bytes) {
  return const_cast<char*>(reinterpret_cast<const char*>(bytes.data()));
}

std::string_view text(std::span<const uint8_t> bytes) { return {chars(bytes), bytes.size()}; }

MatchKey matchKey(const TableRecordView& record) {
  return {.tableId = record.key.rid.id,
          .priority = record.matchKeyPriority,
          .bytes = text(record.matchKeyData)};
}

}  // namespace

EntryRestorer::EntryRestorer(const RestoreTools& tools, ConstantEntries& constantEntries,
                             uint64_t deviceId)
    : tools_(tools),
      constantEntries_(constantEntries),
      deviceId_(deviceId),
      p4info_(pi_get_device_p4info(deviceId)) {}

void EntryRestorer::restoreAll(RestoreCounts& counts) {
  forEachCopied(*tools_.records.tableCache(),
                [this](Brine::Bytes key, Brine::Bytes stored) { restore(key, stored); });
  for (const CacheKey& key : unstable_) makeStable(key);
  for (const std::string& key : deleted_) forget(key);
  for (const std::string& key : unusable_) forget(key);
  counts.entries += restored_;
  std::ranges::move(reasons_, std::back_inserter(counts.unusable));
}

void EntryRestorer::restore(Brine::Bytes key, Brine::Bytes stored) {
  const auto record = TableRecordView::of(stored);
  if (record && record->entryState == EntryState::pendingToBeDeleted) {
    return finishDeletion(key, *record);
  }
  bound_ = 0;
  const Obstacle why = record ? restore(*record) : "unreadable record";
  if (why) return giveUp(key, *why);
  ++restored_;
  if (record->entryState != EntryState::stable) unstable_.push_back(record->key);
}

// The row went with the batch that asked for it; bringing the entry back would leave that batch
// half done.
void EntryRestorer::finishDeletion(Brine::Bytes key, const TableRecordView& record) {
  SCRIVEL_TRACE(1, "TableImpl", " finishing the deletion of entry[ rid:", record.key.rid.id,
                " entryHandle:", record.key.entryHandle, " ]");
  tools_.handles.reserveUpTo(record.key.entryHandle);
  tools_.handles.freeTableEntryHandle(record.key.entryHandle);  // of this very process
  deleted_.emplace_back(Brine::asText(key));
}

// The record, and the row if there is one, go once the pass is through.
void EntryRestorer::giveUp(Brine::Bytes key, const std::string& why) {
  const CacheKey of = cacheKeyOf(key);
  SCRIVEL_TRACE(0, "TableImpl", " cannot restore table entry[ rid:", of.rid.id,
                " entryHandle:", of.entryHandle, " ]: ", why);
  unusable_.emplace_back(Brine::asText(key));
  const std::string entry = bound_ != 0
                                ? tools_.names.text(bound_)
                                : fmt::format("{}, entry handle {}",
                                              tools_.tableInfo.kindAndName(of.rid), of.entryHandle);
  reasons_.push_back(fmt::format("{}: {}", entry, why));
  tools_.handles.freeTableEntryHandle(bound_);
}

Obstacle EntryRestorer::restore(const TableRecordView& record) {
  SCRIVEL_TRACE(6, "TableImpl", " Restoring table entry[ rid:", record.key.rid.id,
                " entryHandle:", record.key.entryHandle, " ]");
  if (Obstacle why = bindHandle(record)) return why;
  return obstacleTo([&] {
    program(record);
    const Obstacle why = obstacleOf(handBack(record));
    if (why) removeRow(record);
    return why;
  });
}

Obstacle EntryRestorer::bindHandle(const TableRecordView& record) {
  const EntryHandle handle = record.key.entryHandle;
  if (record.key.rid.type != tableResource) return "not a record of a table";
  if (handle == 0 || handle > largestEntryHandle)
    return "its handle is none that was ever given out";
  tools_.handles.reserveUpTo(handle);
  if (!tools_.handles.restoreTableEntryHandle(record.key.rid.id, handle, record.matchKeyData.size(),
                                              chars(record.matchKeyData),
                                              record.matchKeyPriority)) {
    return "its handle or match key is another entry's";
  }
  bound_ = handle;
  return std::nullopt;
}

void EntryRestorer::program(const TableRecordView& record) {
  if (record.entryType == TableCacheEntry::directEntry) {
    tools_.entryWriter.add(matchKey(record),
                           {.actionId = record.actionId, .bytes = text(record.actionData)}, {});
  } else {
    const uint64_t handle = record.indirectHandle;
    tools_.entryWriter.addIndirect(matchKey(record),
                                   {.handle = handle, .isGroup = handle >> 32 == 1}, {});
  }
}

// The row may have been written just now, so that it is not among the committed ones yet.
void EntryRestorer::removeRow(const TableRecordView& record) {
  const WritableTable table = tools_.tables.require(record.key.rid);
  table.interface.rowDel(tools_.rowBuilder.entryRowKey(table, matchKey(record)),
                         record.key.entryHandle);
}

pi_status_t EntryRestorer::handBack(const TableRecordView& record) {
  pi_action_data_t action{.p4info = p4info_,
                          .action_id = record.actionId,
                          .data_size = record.actionData.size(),
                          .data = chars(record.actionData)};
  pi_table_entry_t entry{};
  entry.entry_type = static_cast<pi_action_entry_type_t>(record.entryType);
  if (record.entryType == TableCacheEntry::directEntry) {
    entry.entry.action_data = &action;
  } else {
    entry.entry.indirect_handle = record.indirectHandle;
  }
  auto spec = meter(record);
  if (!spec) return handBack(record, entry);
  pi_direct_res_config_one_t one{tools_.tableInfo.directMeterOf(record.key.rid), &*spec};
  const pi_direct_res_config_t direct{1, &one};
  entry.direct_res_config = &direct;
  return handBack(record, entry);
}

pi_status_t EntryRestorer::handBack(const TableRecordView& record, const pi_table_entry_t& entry) {
  const pi_match_key_t matchKey{.p4info = p4info_,
                                .table_id = record.key.rid.id,
                                .priority = record.matchKeyPriority,
                                .data_size = record.matchKeyData.size(),
                                .data = chars(record.matchKeyData)};
  const std::string metadata = tools_.records.metadata(record.key);
  return pi_restore_table_entry_state(deviceId_, record.key.rid.id, &matchKey, &entry,
                                      record.key.entryHandle, record.controllerMetadata,
                                      metadata.data(), metadata.size());
}

// The setting of the entry's meter stands in its row alone. Nothing when the controller set none.
std::optional<pi_meter_spec_t> EntryRestorer::meter(const TableRecordView& record) {
  if (!tools_.tableInfo.hasDirectMeter(record.key.rid)) return std::nullopt;
  const WritableTable table = tools_.tables.require(record.key.rid);
  const auto row = table.interface.row(tools_.rowBuilder.entryRowKey(table, matchKey(record)));
  const auto meter = row ? Lattice::meterOfRow(table.constructor.type(), row->value) : std::nullopt;
  if (!meter || !meter->given) return std::nullopt;
  pi_meter_spec_t spec{};
  spec.cir = meter->cir;
  spec.cburst = static_cast<uint32_t>(std::min<uint64_t>(meter->cburst, UINT32_MAX));
  spec.pir = meter->pir;
  spec.pburst = static_cast<uint32_t>(std::min<uint64_t>(meter->pburst, UINT32_MAX));
  return spec;
}

// The controller's metadata stand under the same key.
void EntryRestorer::forget(const std::string& storedKey) {
  const Brine::Bytes key = Brine::asBytes(storedKey);
  tools_.records.tableCache()->storedKeyDel(key);
  tools_.records.metadataDel(key);
  constantEntries_.forget(cacheKeyOf(key));
}

void EntryRestorer::makeStable(const CacheKey& key) {
  const auto record = tools_.records.stored(key);
  if (record && storedState(*record)) tools_.records.stateIs(key, *record, EntryState::stable);
}

}  // namespace P4Runtime
