#include "P4Runtime/table/write/RowWriter.h"

#include <fmt/format.h>

#include <stdexcept>
#include <string>
#include <utility>

#include "P4Runtime/pi/P4RuntimeException.h"
#include "P4Runtime/table/rows/Refuse.h"
#include "PI/pi_extensions.h"
#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("TableImpl");

}  // namespace

Lattice::Row RowWriter::rowOf(const WritableTable& table, const RowFields& fields) const try {
  SCRIVEL_TRACE(7, "TableImpl", "Calling rowConstructor for tableId: ", table.rid.id);
  return table.constructor.construct(fields.all());
} catch (const Lattice::TypeError& e) {
  refuse(ErrorCode::internalError,
         fmt::format("{}: {}", tableInfo_.kindAndName(table.rid), e.what()));
}

EntryHandle RowWriter::write(const WritableTable& table, EntryHandle handle, bool isNew,
                             const RowFields& fields) {
  return write(table,
               {.row = rowOf(table, fields), .handle = handle, .isNew = isNew, .attachment = {}});
}

EntryHandle RowWriter::write(const WritableTable& table, const RowToWrite& row) {
  try {
    writeRow(table, row);
    return row.handle;
  } catch (const P4RuntimeException&) {
    throw;
  } catch (const std::invalid_argument& e) {  // a key that the store cannot hold
    refuse(ErrorCode::cannotProgram,
           fmt::format("{}: {}", tableInfo_.kindAndName(table.rid), e.what()), row.handle);
  } catch (const std::exception& e) {  // no room or no memory, which says nothing of the entry
    refuse(ErrorCode::outOfResources, e.what(), row.handle);
  }
}

void RowWriter::writeRow(const WritableTable& table, const RowToWrite& row) {
  if (row.isNew) requireOwnRow(table, row.row.key, row.handle);
  if (restore_.isRunning()) return restoreRow(table, row);
  PendingOperation& operation = pending_.newPendingOperation(
      row.handle, PendingOperationType::entryAdd, table.rid, row.isNew);
  const uint64_t sequence = table.interface.rowIs(row.row, row.handle, row.attachment);
  pending_.awaitReport(row.handle, operation, sequence);
}

// The setting of a direct meter stands in the surviving row alone.
void RowWriter::restoreRow(const WritableTable& table, const RowToWrite& row) {
  const auto stands = table.interface.stored(row.row.key);
  const bool keep =
      stands && !restore_.isRewritten(row.handle) && stands->entryHandle == row.handle &&
      (tableInfo_.hasDirectMeter(table.rid) || tableInfo_.hasDirectCounter(table.rid));
  if (!keep) {
    table.interface.rowIs(row.row, row.handle, row.attachment);
  } else if (stands->attachment != row.attachment) {
    table.interface.rowIs({row.row.key, std::string(stands->value)}, row.handle, row.attachment);
  }
}

// Where a row holds no priority, entries that differ in nothing else would share one.
void RowWriter::requireOwnRow(const WritableTable& table, const std::string& rowKey,
                              EntryHandle handle) const {
  const EntryHandle owner = table.interface.rowEntryHandle(rowKey);
  if (owner == 0 || owner == handle || !handles_.entryHandleToResourceIdHas(owner)) return;
  refuse(ErrorCode::alreadyExists,
         fmt::format("table {} holds an entry with this match and another priority; it can hold "
                     "only one of them, so delete that entry first",
                     tableInfo_.nameOf(table.rid)));
}

EntryHandle RowWriter::deleteRow(const WritableTable& table, EntryHandle handle,
                                 const std::string& rowKey) {
  try {
    PendingOperation& operation =
        pending_.newPendingOperation(handle, PendingOperationType::entryDelete, table.rid, false);
    pending_.awaitReport(handle, operation, table.interface.rowDel(rowKey, handle));
  } catch (const std::exception& e) {  // no room or no memory; the row may be gone already
    refuse(ErrorCode::outOfResources, e.what(), handle);
  }
  return handle;
}

// There is nothing for the forwarding plane to confirm, unless an earlier write of the batch waits
// for it.
void RowWriter::completeAtOnce(const WritableTable& table, EntryHandle handle, bool isNew) {
  if (pending_.isAwaited(handle)) return;
  pending_.newPendingOperation(handle, PendingOperationType::entryAdd, table.rid, isNew);
  SCRIVEL_TRACE(6, "TableImpl", " Pretend success for entryHandle ", handle, " and offset ",
                pi_batch_current_offset());
  pending_.complete(handle);
}

}  // namespace P4Runtime
