#include "P4Runtime/table/write/RowWriter.h"

#include <fmt/format.h>

#include <stdexcept>
#include <utility>

#include "P4Runtime/pi/P4RuntimeException.h"
#include "P4Runtime/table/rows/Refuse.h"
#include "PI/pi_extensions.h"
#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("TableImpl");

}  // namespace

EntryHandle RowWriter::write(const WritableTable& table, EntryHandle handle, bool isNew,
                             const RowFields& fields) {
  SCRIVEL_TRACE(7, "TableImpl", "Calling rowConstructor for tableId: ", table.rid.id);
  try {
    writeRow(table, handle, isNew, fields);
    return handle;
  } catch (const P4RuntimeException&) {
    throw;
  } catch (const Lattice::TypeError& e) {
    refuse(ErrorCode::internalError,
           fmt::format("{}: {}", tableInfo_.kindAndName(table.rid), e.what()));
  } catch (const std::invalid_argument& e) {  // a key that the store cannot hold
    refuse(ErrorCode::cannotProgram,
           fmt::format("{}: {}", tableInfo_.kindAndName(table.rid), e.what()), handle);
  } catch (const std::exception& e) {  // no room or no memory, which says nothing of the entry
    refuse(ErrorCode::outOfResources, e.what(), handle);
  }
}

void RowWriter::writeRow(const WritableTable& table, EntryHandle handle, bool isNew,
                         const RowFields& fields) {
  Lattice::Row row = table.constructor.construct(fields.all());
  auto oldRow = table.interface.row(row.key);
  if (isNew && oldRow) requireOwnRow(table, row.key, handle);
  if (restore_.isRunning()) return restoreRow(table, handle, oldRow.has_value(), row);
  PendingOperation& operation = pending_.newPendingOperation(
      handle, PendingOperationType::entryAdd,
      {.rid = table.rid, .rowKey = {}, .oldRow = std::move(oldRow), .newRow = std::move(row)},
      isNew);
  pending_.awaitReport(handle, operation, table.interface.rowIs(*operation.row.newRow, handle));
}

// The setting of a direct meter stands in the surviving row alone.
void RowWriter::restoreRow(const WritableTable& table, EntryHandle handle, bool stands,
                           const Lattice::Row& row) {
  const bool keep =
      stands && !restore_.isRewritten(handle) &&
      table.interface.rowEntryHandle(row.key) == handle &&
      (tableInfo_.hasDirectMeter(table.rid) || tableInfo_.hasDirectCounter(table.rid));
  if (!keep) table.interface.rowIs(row, handle);
}

// Where a row holds no priority, entries that differ in nothing else would share one.
void RowWriter::requireOwnRow(const WritableTable& table, const std::string& rowKey,
                              EntryHandle handle) const {
  const EntryHandle owner = table.interface.rowEntryHandle(rowKey);
  if (owner == handle || !handles_.entryHandleToResourceIdHas(owner)) return;
  refuse(ErrorCode::alreadyExists,
         fmt::format("table {} holds an entry with this match and another priority; it can hold "
                     "only one of them, so delete that entry first",
                     tableInfo_.nameOf(table.rid)));
}

EntryHandle RowWriter::deleteRow(const WritableTable& table, EntryHandle handle,
                                 const std::string& rowKey) {
  try {
    PendingOperation& operation =
        pending_.newPendingOperation(handle, PendingOperationType::entryDelete,
                                     {.rid = table.rid,
                                      .rowKey = rowKey,
                                      .oldRow = table.interface.row(rowKey),
                                      .newRow = std::nullopt},
                                     false);
    pending_.awaitReport(handle, operation, table.interface.rowDel(rowKey, handle));
  } catch (const std::exception& e) {  // no room or no memory; the row may be gone already
    refuse(ErrorCode::outOfResources, e.what(), handle);
  }
  return handle;
}

// There is nothing for the forwarding plane to confirm, unless an earlier write of the batch waits
// for it.
void RowWriter::completeAtOnce(const WritableTable& table, EntryHandle handle,
                               const std::string& rowKey, bool isNew) {
  if (pending_.isAwaited(handle)) return;
  pending_.newPendingOperation(handle, PendingOperationType::entryAdd,
                               {.rid = table.rid,
                                .rowKey = rowKey,
                                .oldRow = table.interface.row(rowKey),
                                .newRow = std::nullopt},
                               isNew);
  SCRIVEL_TRACE(6, "TableImpl", " Pretend success for entryHandle ", handle, " and offset ",
                pi_batch_current_offset());
  pending_.complete(handle);
}

}  // namespace P4Runtime
