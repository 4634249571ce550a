#include "P4Runtime/table/restore/EntryRestorer.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <stdexcept>

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

}  // namespace

EntryRestorer::EntryRestorer(const RestoreTools& tools, ConstantEntries& constantEntries,
                             uint64_t deviceId)
    : tools_(tools),
      constantEntries_(constantEntries),
      deviceId_(deviceId),
      p4info_(pi_get_device_p4info(deviceId)) {}

void EntryRestorer::restoreAll(RestoreCounts& counts) {
  letHandlesGo();
  for (const auto& [rid, interface] : tools_.tableInfo.latticeTableInterfaceCollection().values()) {
    if (rid.type != tableResource) continue;
    if (!interface->ready()) {
      throw std::runtime_error(
          fmt::format("the rows of {} are not ready", tools_.tableInfo.kindAndName(rid)));
    }
    restoreTable(rid, *interface);
    restoreKept(rid, interface->tableName());
  }
  for (const Entry& entry : rewritten_) rewrite(entry);
  for (const Entry& entry : unusable_) remove(entry);
  letKeptGo();
  counts.entries += restored_;
  std::ranges::move(reasons_, std::back_inserter(counts.unusable));
}

// Entries of this process may be gone. A batch that waits for its outcome still needs its handles.
void EntryRestorer::letHandlesGo() {
  const Brine::Store& store = tools_.database->store();
  const bool anyBatchWaits = store.settledSequence() != store.committedSequence();
  if (!anyBatchWaits) tools_.handles.freeTableEntryHandles();
}

// Rows without a record are left to the search for orphans.
void EntryRestorer::restoreTable(const ResourceId& rid,
                                 const Lattice::ArTableInterface& interface) {
  interface.forEachCommitted([&](const Lattice::StoredRow& row) {
    if (row.attachment.empty()) return true;
    if (const auto record = recordOf(rid, row)) {
      restore(*record, &row);
    } else {
      TableRecordView nothing;
      nothing.key = {rid, row.entryHandle};
      bound_ = 0;
      giveUp(nothing, &row, "unreadable record");
    }
    return true;
  });
}

// Records of rows that went with a former type of the table. A restore that found no room may have
// made rows of some.
void EntryRestorer::restoreKept(const ResourceId& rid, const std::string& tableName) {
  for (const auto& [handle, bytes] : tools_.database->kept(tableName)) {
    known_.insert(tableName);
    if (tools_.handles.entryHandleToResourceIdHas(handle)) continue;
    const Lattice::StoredRow row{.attachment = bytes, .entryHandle = handle};
    if (const auto record = recordOf(rid, row)) restore(*record, nullptr);
  }
}

void EntryRestorer::restore(const TableRecordView& record, const Lattice::StoredRow* row) {
  SCRIVEL_TRACE(6, "TableImpl", " Restoring table entry[ rid:", record.key.rid.id,
                " entryHandle:", record.key.entryHandle, " ]");
  bound_ = 0;
  Obstacle why = bindHandle(record);
  if (!why) why = obstacleTo([&] { return restoreBound(record, row); });
  if (why) return giveUp(record, row, *why);
  ++restored_;
}

// The row is written later, since the tables are being walked.
Obstacle EntryRestorer::restoreBound(const TableRecordView& record, const Lattice::StoredRow* row) {
  const WritableTable table = tools_.tables.require(record.key.rid);
  const Lattice::Row& made = tools_.entryWriter.rowOf(table, record);
  tools_.handles.rowHashIs(record.key.entryHandle, table.interface.keyHash(made.key));
  const bool isOthers = row && made.key != row->key && table.interface.stored(made.key);
  if (isOthers) return "its match key is another entry's";
  const bool isRight = row && isAsItShouldBe(record, made, *row);
  if (const Obstacle why = obstacleOf(handBack(record, row))) return why;
  if (!isRight) {
    rewritten_.push_back(
        {record.key.rid, row ? std::string(row->key) : std::string(), entryOf(record)});
  }
  return std::nullopt;
}

bool EntryRestorer::isAsItShouldBe(const TableRecordView& record, const Lattice::Row& made,
                                   const Lattice::StoredRow& row) const {
  if (made.key != row.key || tools_.mode.isRewritten(record.key.entryHandle)) return false;
  return made.value == row.value || tools_.tableInfo.hasDirectMeter(record.key.rid) ||
         tools_.tableInfo.hasDirectCounter(record.key.rid);
}

void EntryRestorer::rewrite(const Entry& entry) {
  std::string bytes;
  encodeRecord(entry.record, bytes);
  const Lattice::StoredRow as{.attachment = bytes, .entryHandle = entry.record.key.entryHandle};
  const auto record = recordOf(entry.rid, as);
  const WritableTable table = tools_.tables.require(entry.rid);
  const bool moves =
      !entry.rowKey.empty() && tools_.entryWriter.rowOf(table, *record).key != entry.rowKey;
  if (moves) table.interface.rowDel(entry.rowKey, entry.record.key.entryHandle);
  tools_.entryWriter.restoreEntry(table, *record);
}

// The record, and the row if there is one, go once the pass is through.
void EntryRestorer::giveUp(const TableRecordView& record, const Lattice::StoredRow* row,
                           const std::string& why) {
  SCRIVEL_TRACE(0, "TableImpl", " cannot restore table entry[ rid:", record.key.rid.id,
                " entryHandle:", record.key.entryHandle, " ]: ", why);
  const std::string entry =
      bound_ != 0 ? tools_.names.text(bound_)
                  : fmt::format("{}, entry handle {}", tools_.tableInfo.kindAndName(record.key.rid),
                                record.key.entryHandle);
  reasons_.push_back(fmt::format("{}: {}", entry, why));
  unusable_.push_back(
      {record.key.rid, row ? std::string(row->key) : std::string(), entryOf(record)});
  tools_.handles.freeTableEntryHandle(bound_);
}

// The controller's metadata stand beside.
void EntryRestorer::remove(const Entry& entry) {
  const CacheKey& key = entry.record.key;
  const auto& interface = tools_.tableInfo.latticeTableInterface(entry.rid);
  if (!entry.rowKey.empty()) interface->rowDel(entry.rowKey, key.entryHandle);
  tools_.records.metadataIs(key, {});
  constantEntries_.forget(key);
}

// Of a former pipeline's tables only their names are known.
void EntryRestorer::letKeptGo() {
  for (const std::string& table : tools_.database->keptTables()) {
    if (!known_.contains(table)) {
      for (const auto& [handle, bytes] : tools_.database->kept(table)) {
        reasons_.push_back(fmt::format("table {}, entry handle {}: the pipeline has no such table",
                                       table, handle));
      }
    }
    tools_.database->keptDel(table);
  }
}

Obstacle EntryRestorer::bindHandle(const TableRecordView& record) {
  const EntryHandle handle = record.key.entryHandle;
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

pi_status_t EntryRestorer::handBack(const TableRecordView& record, const Lattice::StoredRow* row) {
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
  auto spec = meter(record, row);
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
std::optional<pi_meter_spec_t> EntryRestorer::meter(const TableRecordView& record,
                                                    const Lattice::StoredRow* row) const {
  if (!row || !tools_.tableInfo.hasDirectMeter(record.key.rid)) return std::nullopt;
  const auto& type = tools_.tableInfo.rowConstructor(record.key.rid)->type();
  const auto meter = Lattice::meterOfRow(type, row->value);
  if (!meter || !meter->given) return std::nullopt;
  pi_meter_spec_t spec{};
  spec.cir = meter->cir;
  spec.cburst = static_cast<uint32_t>(std::min<uint64_t>(meter->cburst, UINT32_MAX));
  spec.pir = meter->pir;
  spec.pburst = static_cast<uint32_t>(std::min<uint64_t>(meter->pburst, UINT32_MAX));
  return spec;
}

}  // namespace P4Runtime
