// Settles entries, members and groups once the outcome of their programming is known.
#pragma once

#include "P4Runtime/companion/P4HandleMgr.h"
#include "P4Runtime/table/failures/StrayReports.h"
#include "P4Runtime/table/undo/EntryUndo.h"
#include "P4Runtime/table/undo/PendingOperations.h"

namespace P4Runtime {

// Call with the activity lock held; all that is handed in outlives this.
class EntrySettler {
 public:
  EntrySettler(P4HandleMgr& handles, EntryRecords& records, PendingOperations& pending,
               EntryUndo& undo, StrayReports& strayReports, EntryFailures& failures)
      : handles_(handles),
        records_(records),
        pending_(pending),
        undo_(undo),
        strayReports_(strayReports),
        failures_(failures) {}

  // `abort`: the programming failed, and is undone. A success needs nothing of the store: that the
  // batch is settled makes its records stable.
  void settle(EntryHandle handle, bool abort);
  void settleAll();  // each pending operation has succeeded
  // Undoes the handle's operation, if there is one. A new entry that was refused before it had a
  // record leaves no handle behind either.
  void undoOperation(EntryHandle handle);
  // Removes the record of a member or group; that of a table entry goes with its row.
  void deleteRecord(const ResourceId& rid, EntryHandle handle);
  // Removes the record and frees the handle.
  void removeEntry(const ResourceId& rid, EntryHandle handle);

 private:
  void confirm(EntryHandle handle, const PendingOperation* operation);

  P4HandleMgr& handles_;
  EntryRecords& records_;
  PendingOperations& pending_;
  EntryUndo& undo_;
  StrayReports& strayReports_;
  EntryFailures& failures_;
};

}  // namespace P4Runtime
