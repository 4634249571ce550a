// Puts rows and records back as they were before a failed operation, and sees to it that the store
// has them so.
#pragma once

#include <string>
#include <vector>

#include "P4Runtime/companion/P4HandleMgr.h"
#include "P4Runtime/pipeline/P4TableInfo.h"
#include "P4Runtime/table/failures/EntryFailures.h"
#include "P4Runtime/table/failures/EntryNames.h"
#include "P4Runtime/table/undo/PendingOperations.h"
#include "platform/lattice/Database.h"
#include "platform/vela/Outcome.h"

namespace P4Runtime {

// Call with the activity lock held; all that is handed in outlives this.
class EntryUndo {
 public:
  // `database` may be null: nothing is ever committed.
  EntryUndo(P4TableInfo& tableInfo, P4HandleMgr& handles, EntryRecords& records,
            const EntryNames& names, EntryFailures& failures, Lattice::Database* database)
      : tableInfo_(tableInfo),
        handles_(handles),
        records_(records),
        names_(names),
        failures_(failures),
        database_(database) {}

  // Row and record are as before. In a batch the undoing is committed with the batch, or the batch
  // never was; outside one it is remembered until commit(). Throws std::runtime_error when the
  // table is gone, Brine::StoreError when the store is full.
  void putBack(EntryHandle handle, const PendingOperation& operation);

  // Whether anything was put back outside a batch, and the store has yet to commit it.
  bool anyPutBack() const { return !putBack_.empty(); }
  size_t putBackCount() const { return putBack_.size(); }
  // Commits all that was put back. When the store cannot, all of it is remembered.
  Vela::Outcome commit();
  // Once more all that is remembered. Throws Vela::Exception when the store still cannot commit it.
  void maybePutBackAgain();
  // Commits all writes outside a batch. Throws std::runtime_error with the reason when the
  // store cannot.
  void commitOrThrow();
  void forgetPutBack() { putBack_.clear(); }

 private:
  struct PutBack {
    EntryHandle handle = 0;
    PendingOperation operation;
  };
  uint64_t restoreRow(EntryHandle handle, const PendingOperation& operation);
  void restoreRecord(EntryHandle handle, const PendingOperation& operation);
  void restoreTableRecord(const CacheKey& key, const std::string& oldRecord);
  void restoreMemberOrGroup(const CacheKey& key, const std::string& oldRecord);

  P4TableInfo& tableInfo_;
  P4HandleMgr& handles_;
  EntryRecords& records_;
  const EntryNames& names_;
  EntryFailures& failures_;
  Lattice::Database* const database_;
  std::vector<PutBack> putBack_;
};

}  // namespace P4Runtime
