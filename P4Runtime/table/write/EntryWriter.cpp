#include "P4Runtime/table/write/EntryWriter.h"

#include <fmt/format.h>

#include <span>
#include <string_view>

#include "P4Runtime/pi/P4RuntimeException.h"
#include "P4Runtime/table/rows/Refuse.h"
#include "PI/pi_extensions.h"
#include "platform/lattice/types/DirectColumns.h"
#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("TableImpl");

}  // namespace

EntryHandle EntryWriter::add(const MatchKey& key, const ActionData& action,
                             const DirectResources& direct) {
  validateKeySize(key.bytes.size());
  validateActionSize(action.bytes.size());
  const WritableTable table = tables_.require({tableResource, key.tableId});
  RowFields& fields = builder_.startEntry(table, key.bytes);
  builder_.appendAction(table.rid, action, fields);
  builder_.appendDirectResources(table.rid, direct, fields);
  builder_.appendPriority(table, key.priority, fields);
  row_.row = writer_.rowOf(table, fields);
  encodeRecord(key, action, pi_batch_current_controller_metadata(), record_);
  if (direct.counter) markCounter(table, key);
  return addEntry(table, key);
}

EntryHandle EntryWriter::addIndirect(const MatchKey& key, const MemberOrGroup& target,
                                     const DirectResources& direct) {
  validateKeySize(key.bytes.size());
  const WritableTable table = tables_.require({tableResource, key.tableId});
  RowFields& fields = builder_.startEntry(table, key.bytes);
  builder_.appendIndirection(target, fields);
  builder_.appendDirectResources(table.rid, direct, fields);
  builder_.appendPriority(table, key.priority, fields);
  row_.row = writer_.rowOf(table, fields);
  encodeRecord(key, target, pi_batch_current_controller_metadata(), record_);
  if (direct.counter) markCounter(table, key);
  return addEntry(table, key);
}

// Followers take the counts of a row only when its counter columns differ from those before, so a
// counter that is set to the same counts once more has another flag.
void EntryWriter::markCounter(const WritableTable& table, const MatchKey& key) {
  if (!tableInfo_.setsCounters() || !tableInfo_.hasDirectCounter(table.rid)) return;
  const auto former = keys_.find(table, key, row_.row.key).row;
  std::string& value = row_.row.value;
  if (!former || former->value.size() < Lattice::counterBytes) return;
  const size_t at = value.size() - Lattice::counterBytes;
  if (former->value.substr(former->value.size() - Lattice::counterBytes) != value.substr(at))
    return;
  value[at] = value[at] == 1 ? 2 : 1;
}

// For the handle manager. An entry that the batch has deleted keeps its handle when it is added
// again: both writes then share one fate, and followers hear of one change.
void EntryWriter::findEntry(const WritableTable& table, const MatchKey& key,
                            const std::string& rowKey) {
  const bool isThere = keys_.find(table, key, rowKey).row.has_value();
  if (isThere || !database_) return;
  const uint64_t settled = database_->store().settledSequence();
  const auto deleted = deleted_.take(settled, key, rowKey);
  if (!deleted) return;
  database_->undo(deleted->sequence);
  keys_.seenIs(key, deleted->handle);
}

void EntryWriter::noteDeletion(const MatchKey& key, const std::string& rowKey, EntryHandle handle) {
  if (!database_) return;
  const Brine::Store& store = database_->store();
  deleted_.add(store.settledSequence(), key, rowKey, {handle, store.nextSequence() - 1});
}

// Writes row_ and record_.
EntryHandle EntryWriter::addEntry(const WritableTable& table, const MatchKey& key) {
  findEntry(table, key, row_.row.key);
  bool isNew = false;
  const EntryHandle handle = handles_.getOrCreateTableEntryHandle(
      key.tableId, key.bytes.size(), key.bytes.data(), key.priority, &isNew);
  try {
    writeEntry(table, handle, isNew);
    return handle;
  } catch (const P4RuntimeException& e) {
    // With the handle in it, the exception's handler puts the entry back and frees the handle.
    if (isNew && e.entryHandle == 0) handles_.freeTableEntryHandle(handle);
    throw;
  }
}

void EntryWriter::writeEntry(const WritableTable& table, EntryHandle handle, bool isNew) {
  if (isNew) {
    tables_.maybeCheckTableSizeLimit(table.rid, handle);  // a change always fits
    handles_.rowHashIs(handle, table.interface.keyHash(row_.row.key));
  }
  row_.handle = handle;
  row_.isNew = isNew;
  row_.attachment = record_;
  writer_.write(table, row_);
}

EntryHandle EntryWriter::deleteEntry(const MatchKey& key) {
  validateKeySize(key.bytes.size());
  const WritableTable table = tables_.require({tableResource, key.tableId});
  RowFields& fields = builder_.startEntry(table, key.bytes);
  if (!table.needsPriority && key.priority != 0) {
    SCRIVEL_TRACE(1, "TableImpl", " unexpected non-zero priority for resource ", key.tableId);
  }
  builder_.appendPriority(table, key.priority, fields);
  const std::string rowKey = table.constructor.constructKey(fields.all());
  keys_.find(table, key, rowKey);  // for the handle manager
  const EntryHandle handle = handles_.getEntryHandleFromMatchKey(key.tableId, key.bytes.size(),
                                                                 key.bytes.data(), key.priority);
  if (handle == 0) {
    refuse(ErrorCode::invalidKey,
           fmt::format("table {} has no entry with this match key", tableInfo_.nameOf(table.rid)));
  }
  writer_.deleteRow(table, handle, rowKey);
  noteDeletion(key, rowKey, handle);
  return handle;
}

const Lattice::Row& EntryWriter::rowOf(const WritableTable& table, const TableRecordView& record) {
  const auto text = [](std::span<const uint8_t> bytes) {
    return std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  };
  RowFields& fields = builder_.startEntry(table, text(record.matchKeyData));
  if (record.entryType == TableCacheEntry::directEntry) {
    builder_.appendAction(table.rid,
                          {.actionId = record.actionId, .bytes = text(record.actionData)}, fields);
  } else {
    const uint64_t handle = record.indirectHandle;
    builder_.appendIndirection({.handle = handle, .isGroup = handle >> 32 == 1}, fields);
  }
  builder_.appendDirectResources(table.rid, {}, fields);
  builder_.appendPriority(table, record.matchKeyPriority, fields);
  row_.row = writer_.rowOf(table, fields);
  return row_.row;
}

void EntryWriter::restoreEntry(const WritableTable& table, const TableRecordView& record) {
  rowOf(table, record);
  encodeRecord(entryOf(record), record_);
  row_.handle = record.key.entryHandle;
  row_.isNew = false;
  row_.attachment = record_;
  writer_.write(table, row_);
}

}  // namespace P4Runtime
