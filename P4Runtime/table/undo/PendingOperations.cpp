#include "P4Runtime/table/undo/PendingOperations.h"

#include <algorithm>
#include <utility>

#include "PI/pi_extensions.h"

namespace P4Runtime {

// An operation without the former record would put back nothing, so it is dropped with the failure.
PendingOperation& PendingOperations::newPendingOperation(EntryHandle handle,
                                                         PendingOperationType type, RowChange row,
                                                         bool isNew) {
  const auto [slot, fresh] = operations_.try_emplace(handle);
  PendingOperation& operation = slot->second;
  if (fresh) {
    operation.row.rid = row.rid;
    operation.row.oldRow = std::move(row.oldRow);
    try {
      if (!isNew) rememberRecord(handle, operation);
    } catch (...) {
      operations_.erase(slot);
      throw;
    }
  }
  operation.type = type;
  operation.row.newRow = std::move(row.newRow);
  operation.row.rowKey = std::move(row.rowKey);
  operation.newRecord.clear();
  batchStatus_.newEntryHandleForBatchOffset(handle, pi_batch_current_offset());
  return operation;
}

void PendingOperations::rememberRecord(EntryHandle handle, PendingOperation& operation) const {
  const CacheKey key = recordKey(operation.row.rid, handle);
  if (const auto stored = records_.stored(key)) {
    operation.oldRecord = std::string(Brine::asText(*stored));
  }
  operation.oldMetadata = records_.metadata(key);
}

void PendingOperations::awaitReport(EntryHandle handle, PendingOperation& operation,
                                    uint64_t sequence) {
  if (sequence == 0) return;
  operation.awaited = true;
  batchStatus_.pendingOperationIs(handle, sequence);
}

void PendingOperations::complete(EntryHandle handle) {
  batchStatus_.completedTransactionStatusIs({handle, 0});
}

void PendingOperations::recordWritten(EntryHandle handle, const TableCacheEntry& record) {
  const auto found = operations_.find(handle);
  if (found == operations_.end()) return;
  std::string& written = found->second.newRecord;
  written.resize(record.serializeLen());
  record.serialize(reinterpret_cast<uint8_t*>(written.data()));
}

bool PendingOperations::isAwaited(EntryHandle handle) const {
  const auto found = operations_.find(handle);
  return found != operations_.end() && found->second.awaited;
}

std::optional<PendingOperation> PendingOperations::take(EntryHandle handle) {
  auto taken = operations_.extract(handle);
  if (!taken) return std::nullopt;
  return std::move(taken.mapped());
}

void PendingOperations::clear() {
  operations_.clear();
  batchStatus_.pendingOperationDelAll();
}

size_t PendingOperations::awaitedCount() const {
  return std::count_if(operations_.begin(), operations_.end(),
                       [](const auto& one) { return one.second.awaited; });
}

}  // namespace P4Runtime
