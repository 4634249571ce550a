// The operations of the batch in progress: for each entry, member and group that it has written,
// how to put it back.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include <absl/container/inlined_vector.h>

#include "P4Runtime/companion/BatchStatus.h"
#include "P4Runtime/companion/HandleMap.h"
#include "P4Runtime/companion/ResourceId.h"

namespace P4Runtime {

enum class PendingOperationType { entryAdd, entryDelete };

struct PendingOperation {
  ResourceId rid;
  PendingOperationType type = PendingOperationType::entryAdd;
  bool awaited = false;  // by the batch: the forwarding agents report on it
  bool isNew = false;    // there was no such entry
  bool taken = false;    // settled: there is no such operation any more
  // The changes of row, record and metadata, in their order, by their sequence numbers. The store
  // can undo each of them.
  absl::InlinedVector<uint64_t, 2> changes;
  uint64_t rowChange = 0;  // the last of the row's among them
};

// Threads: call with the activity lock held.
// Lifetime: the batch status outlives it. References to operations are valid until the next one is
// begun.
class PendingOperations {
 public:
  explicit PendingOperations(BatchStatus& batchStatus) : batchStatus_(batchStatus) {}

  // Call before the row is written. A second write of an entry in one batch belongs to the
  // operation of the first.
  PendingOperation& newPendingOperation(EntryHandle handle, PendingOperationType type,
                                        const ResourceId& rid, bool isNew);
  // The row was changed. The forwarding agents report on the change `sequence`; 0: there was none.
  void awaitReport(EntryHandle handle, PendingOperation& operation, uint64_t sequence);
  void stopAwaiting(EntryHandle handle) { batchStatus_.pendingOperationDel(handle); }
  // The operation needs no word of the forwarding plane.
  void complete(EntryHandle handle);
  // What stands beside the row was changed. Nothing for a handle without an operation.
  void noteChange(EntryHandle handle, uint64_t sequence);

  bool has(EntryHandle handle) { return find(handle) != nullptr; }
  size_t count() const;
  bool isAwaited(EntryHandle handle) const;
  // Removes and returns the operation of the handle, if any.
  std::optional<PendingOperation> take(EntryHandle handle);
  // Removes all, and gives each to `use(handle, operation)`.
  template <typename Use>
  void takeAll(Use use) {
    for (const auto& [handle, operation] : operations_) {
      if (!operation.taken) use(handle, operation);
    }
    clear();
  }
  void clear();
  size_t awaitedCount() const;
  std::vector<uint64_t> changes() const;  // of all of them, ascending

 private:
  PendingOperation* find(EntryHandle handle);  // null without one

  BatchStatus& batchStatus_;
  HandleMap<PendingOperation> operations_;
};

}  // namespace P4Runtime
