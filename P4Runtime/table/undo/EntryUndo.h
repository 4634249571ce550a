// Puts rows and records back as they were before a failed operation, and sees to it that the store
// has them so.
#pragma once

#include <cstddef>

#include "P4Runtime/table/failures/EntryFailures.h"
#include "P4Runtime/table/failures/EntryNames.h"
#include "P4Runtime/table/undo/PendingOperations.h"
#include "platform/lattice/Database.h"
#include "platform/vela/Outcome.h"

namespace P4Runtime {

// Call with the activity lock held; all that is handed in outlives this.
class EntryUndo {
 public:
  // `database` may be null: nothing is ever stored.
  EntryUndo(const EntryNames& names, EntryFailures& failures, Lattice::Database* database)
      : names_(names), failures_(failures), database_(database) {}

  // Row and record are as before. In a batch the undoing is committed with the batch; outside one
  // commit() does so.
  void putBack(EntryHandle handle, const PendingOperation& operation);

  // How many entries were put back outside a batch since the last commit().
  size_t putBackCount() const { return putBack_; }
  // The last change of a row that putBack() has made; 0: there was none.
  uint64_t lastPutBack() const { return lastPutBack_; }
  void forgetLastPutBack() { lastPutBack_ = 0; }
  // The changes cannot be undone any more when it fails: rows that follow from others could not be
  // told.
  Vela::Outcome commit();
  // Commits all writes outside a batch. Throws std::runtime_error with the reason when the
  // store cannot.
  void commitOrThrow();

 private:
  uint64_t undoAll(const PendingOperation& operation);

  const EntryNames& names_;
  EntryFailures& failures_;
  Lattice::Database* const database_;
  size_t putBack_ = 0;
  uint64_t lastPutBack_ = 0;
};

}  // namespace P4Runtime
