#include "P4Runtime/table/restore/EntryRestorer.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <stdexcept>

#include "P4Runtime/table/records/HandleReservation.h"
#include "PI/frontends/proto/translation_tables.h"
#include "PI/int/pi_int.h"
#include "PI/pi.h"
#include "PI/pi_extensions.h"
#include "platform/lattice/records/StoreLayout.h"
#include "platform/lattice/types/DirectColumns.h"
#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("TableImpl");

char* chars(std::span<const uint8_t> bytes) {
  return const_cast<char*>(reinterpret_cast<const char*>(bytes.data()));
}

size_t keptCount(Brine::Store& store, const std::string& table) {
  const std::string name = std::string(Lattice::keptPrefix) + table;
  return store.hasTable(name) ? store.count(store.table(name)) : 0;
}

}  // namespace

EntryRestorer::EntryRestorer(const RestoreTools& tools, ConstantEntries& constantEntries,
                             uint64_t deviceId, std::vector<uint32_t> standing)
    : tools_(tools),
      constantEntries_(constantEntries),
      deviceId_(deviceId),
      p4info_(pi_get_device_p4info(deviceId)),
      standing_(std::move(standing)) {
  findTables();
}

void EntryRestorer::findTables() {
  for (const auto& [rid, interface] : tools_.tableInfo.latticeTableInterfaceCollection().values()) {
    if (rid.type != tableResource || std::ranges::count(standing_, rid.id) != 0) continue;
    if (!interface->ready()) {
      throw std::runtime_error(
          fmt::format("the rows of {} are not ready", tools_.tableInfo.kindAndName(rid)));
    }
    tables_.push_back({rid, interface});
    all_ += interface->rowCount() + keptCount(tools_.database->store(), interface->tableName());
  }
  // One-shot sets of entries are checked against the names in them.
  std::ranges::stable_partition(tables_, [](const Table& table) {
    return pi::fe::proto::is_translation_table(table.rid.id);
  });
}

bool EntryRestorer::restore(RestoreSlice& slice) {
  if (looked_ == 0 && table_ == 0) {
    letHandlesGo();
    pi_restore_expect(deviceId_, all_);
  }
  for (; table_ < tables_.size(); ++table_) {
    const Table& table = tables_[table_];
    if (!rowsAreThrough_ && !restoreTable(table, slice)) return false;
    rowsAreThrough_ = true;
    if (!restoreKept(table, slice)) return false;
    rowsAreThrough_ = false;
  }
  return true;
}

bool EntryRestorer::rewrite(RestoreSlice& slice) {
  while (nextRewritten_ < rewritten_.size()) {
    rewrite(rewritten_[nextRewritten_++]);
    if (slice.isOver()) return false;
  }
  return true;
}

void EntryRestorer::finish(RestoreCounts& counts) {
  for (const Entry& entry : unusable_) remove(entry);
  letKeptGo();
  counts.entries += restored_;
  std::ranges::move(reasons_, std::back_inserter(counts.unusable));
}

// Entries of this process may be gone. A batch that waits for its outcome still needs its handles.
void EntryRestorer::letHandlesGo() {
  const Brine::Store& store = tools_.database->store();
  const bool anyBatchWaits = store.settledSequence() != store.committedSequence();
  if (!anyBatchWaits) tools_.handles.freeTableEntryHandles(standing_);
}

bool EntryRestorer::restoreTable(const Table& table, RestoreSlice& slice) {
  bool isThrough = true;
  const auto visit = [&](const Lattice::StoredRow& row) {
    restoreRow(table, row);
    return isThrough = !slice.isOver();
  };
  table.interface->forEachCommitted(visit, &row_);
  if (isThrough) row_ = {};
  return isThrough;
}

void EntryRestorer::restoreRow(const Table& table, const Lattice::StoredRow& row) {
  ++looked_;
  if (row.attachment.empty()) return bareRows_.push_back({table.rid, std::string(row.key)});
  if (const auto record = recordOf(table.rid, row)) return restore(*record, &row);
  TableRecordView nothing;
  nothing.key = {table.rid, row.entryHandle};
  bound_ = 0;
  giveUp(nothing, &row, "unreadable record");
}

// Records of rows that went with a former type of the table. A restore that found no room may have
// made rows of some.
bool EntryRestorer::restoreKept(const Table& table, RestoreSlice& slice) {
  const std::string& name = table.interface->tableName();
  if (nextKept_ == 0) kept_ = tools_.database->kept(name);
  if (!kept_.empty()) known_.insert(name);
  while (nextKept_ < kept_.size()) {
    ++looked_;
    const auto& [handle, bytes] = kept_[nextKept_++];
    const Lattice::StoredRow row{.attachment = bytes, .entryHandle = handle};
    const bool isBack = tools_.handles.entryHandleToResourceIdHas(handle);
    const auto record = isBack ? std::nullopt : recordOf(table.rid, row);
    if (record) restore(*record, nullptr);
    if (slice.isOver()) return false;
  }
  nextKept_ = 0;
  kept_.clear();
  return true;
}

// The usual case, without looking for another row: the record makes this very row, and its handle
// is free. False, and nothing is done, in all others.
bool EntryRestorer::maybeTakeAsItStands(const TableRecordView& record,
                                        const Lattice::StoredRow& row) try {
  const EntryHandle handle = record.key.entryHandle;
  if (handle == 0 || handle > largestEntryHandle) return false;
  const WritableTable table = tools_.tables.require(record.key.rid);
  const Lattice::Row& made = tools_.entryWriter.rowOf(table, record);
  if (!isAsItShouldBe(record, made, row)) return false;
  const uint32_t rowHash = table.interface.keyHash(row.key);
  if (!tools_.handles.takeTableEntryHandle(record.key.rid.id, handle, rowHash)) return false;
  bound_ = handle;
  if (const Obstacle why = obstacleOf(handBack(record, &row))) {
    giveUp(record, &row, *why);
  } else {
    ++restored_;
  }
  return true;
} catch (const P4RuntimeException&) {
  return false;
} catch (const Lattice::TypeError&) {
  return false;
}

void EntryRestorer::restore(const TableRecordView& record, const Lattice::StoredRow* row) {
  SCRIVEL_TRACE(6, "TableImpl", " Restoring table entry[ rid:", record.key.rid.id,
                " entryHandle:", record.key.entryHandle, " ]");
  bound_ = 0;
  if (row && maybeTakeAsItStands(record, *row)) return;
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
    Rewritten& entry = rewritten_.emplace_back(record.key.rid, record.key.entryHandle);
    if (row) entry.rowKey = row->key;
    encodeRecord(entryOf(record), entry.record);
  }
  return std::nullopt;
}

bool EntryRestorer::isAsItShouldBe(const TableRecordView& record, const Lattice::Row& made,
                                   const Lattice::StoredRow& row) const {
  if (made.key != row.key || tools_.mode.isRewritten(record.key.entryHandle)) return false;
  return made.value == row.value || tools_.tableInfo.hasDirectMeter(record.key.rid) ||
         tools_.tableInfo.hasDirectCounter(record.key.rid);
}

void EntryRestorer::rewrite(const Rewritten& entry) {
  const Lattice::StoredRow as{.attachment = entry.record, .entryHandle = entry.handle};
  const auto record = recordOf(entry.rid, as);
  const WritableTable table = tools_.tables.require(entry.rid);
  const bool moves =
      !entry.rowKey.empty() && tools_.entryWriter.rowOf(table, *record).key != entry.rowKey;
  if (moves) table.interface.rowDel(entry.rowKey, entry.handle);
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
