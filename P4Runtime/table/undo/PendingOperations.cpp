#include "P4Runtime/table/undo/PendingOperations.h"

#include <algorithm>

#include "PI/pi_extensions.h"

namespace P4Runtime {

PendingOperation& PendingOperations::newPendingOperation(EntryHandle handle,
                                                         PendingOperationType type,
                                                         const ResourceId& rid, bool isNew) {
  const auto [item, fresh] = operations_.add(handle);
  PendingOperation& operation = item.value;
  if (fresh || operation.taken) operation = {.rid = rid, .isNew = isNew};
  operation.type = type;
  batchStatus_.newEntryHandleForBatchOffset(handle, pi_batch_current_offset());
  return operation;
}

void PendingOperations::awaitReport(EntryHandle handle, PendingOperation& operation,
                                    uint64_t sequence) {
  if (sequence == 0) return;
  operation.awaited = true;
  operation.changes.push_back(sequence);
  operation.rowChange = sequence;
  batchStatus_.pendingOperationIs(handle, sequence);
}

void PendingOperations::complete(EntryHandle handle) {
  batchStatus_.completedTransactionStatusIs({handle, 0});
}

PendingOperation* PendingOperations::find(EntryHandle handle) {
  auto* item = operations_.find(handle);
  return item && !item->value.taken ? &item->value : nullptr;
}

void PendingOperations::noteChange(EntryHandle handle, uint64_t sequence) {
  if (auto* operation = find(handle)) operation->changes.push_back(sequence);
}

bool PendingOperations::isAwaited(EntryHandle handle) const {
  const auto* item = operations_.find(handle);
  return item && !item->value.taken && item->value.awaited;
}

std::optional<PendingOperation> PendingOperations::take(EntryHandle handle) {
  PendingOperation* operation = find(handle);
  if (!operation) return std::nullopt;
  operation->taken = true;
  return *operation;
}

void PendingOperations::clear() {
  operations_.clear();
  batchStatus_.pendingOperationDelAll();
}

size_t PendingOperations::count() const {
  return std::ranges::count_if(operations_, [](const auto& item) { return !item.value.taken; });
}

std::vector<uint64_t> PendingOperations::changes() const {
  std::vector<uint64_t> all;
  for (const auto& [handle, operation] : operations_) {
    if (!operation.taken) all.insert(all.end(), operation.changes.begin(), operation.changes.end());
  }
  std::ranges::sort(all);
  return all;
}

size_t PendingOperations::awaitedCount() const {
  return std::ranges::count_if(
      operations_, [](const auto& item) { return item.value.awaited && !item.value.taken; });
}

}  // namespace P4Runtime
