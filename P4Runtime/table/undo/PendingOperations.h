// The operations of the batch in progress: for each entry, member and group that it has written,
// how to put it back.
#pragma once

#include <optional>
#include <string>

#include <absl/container/node_hash_map.h>

#include "P4Runtime/companion/BatchStatus.h"
#include "P4Runtime/table/records/EntryRecords.h"
#include "platform/lattice/types/TableType.h"

namespace P4Runtime {

enum class PendingOperationType { entryAdd, entryDelete };

// A row before and after a write.
struct RowChange {
  ResourceId rid;
  std::string rowKey;
  std::optional<Lattice::Row> oldRow;
  std::optional<Lattice::Row> newRow;  // nothing for a deletion
};

struct PendingOperation {
  PendingOperationType type = PendingOperationType::entryAdd;
  bool awaited = false;  // by the batch: the forwarding agents report on it
  RowChange row;
  std::optional<std::string> oldRecord;  // the cache record, as stored
  std::string newRecord;                 // the one written for a table entry; else empty
  std::string oldMetadata;               // the controller's metadata bytes
};

// Threads: call with the activity lock held.
// Errors: without memory or a readable record newPendingOperation() throws, and nothing is pending.
// Lifetime: batch status and records outlive it. References to operations are valid until the
// operation is taken or all are cleared.
class PendingOperations {
 public:
  PendingOperations(BatchStatus& batchStatus, const EntryRecords& records)
      : batchStatus_(batchStatus), records_(records) {}

  // Call before the row is written. A second write of an entry in one batch keeps the row and
  // record from before the first. `isNew`: the entry had no record before.
  PendingOperation& newPendingOperation(EntryHandle handle, PendingOperationType type,
                                        RowChange row, bool isNew);
  // The forwarding agents report on the change `sequence`; 0: there was no change.
  void awaitReport(EntryHandle handle, PendingOperation& operation, uint64_t sequence);
  void stopAwaiting(EntryHandle handle) { batchStatus_.pendingOperationDel(handle); }
  // The operation needs no word of the forwarding plane.
  void complete(EntryHandle handle);
  // Remembers the record, so that the outcome need not look it up again. Nothing for a handle
  // without an operation.
  void recordWritten(EntryHandle handle, const TableCacheEntry& record);

  bool has(EntryHandle handle) const { return operations_.contains(handle); }
  bool isAwaited(EntryHandle handle) const;
  // Removes and returns the operation of the handle, if any.
  std::optional<PendingOperation> take(EntryHandle handle);
  void clear();
  size_t count() const { return operations_.size(); }
  size_t awaitedCount() const;

 private:
  void rememberRecord(EntryHandle handle, PendingOperation& operation) const;

  BatchStatus& batchStatus_;
  const EntryRecords& records_;
  absl::node_hash_map<EntryHandle, PendingOperation> operations_;
};

}  // namespace P4Runtime
