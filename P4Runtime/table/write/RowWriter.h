// Writes and deletes rows, each with the pending operation that can put it back.
#pragma once

#include <string>

#include "P4Runtime/companion/P4HandleMgr.h"
#include "P4Runtime/pipeline/P4TableInfo.h"
#include "P4Runtime/table/rows/RowFields.h"
#include "P4Runtime/table/rows/WritableTable.h"
#include "P4Runtime/table/undo/PendingOperations.h"
#include "P4Runtime/table/write/RestoreMode.h"

namespace P4Runtime {

// Call with the activity lock held; all that is handed in outlives this.
class RowWriter {
 public:
  RowWriter(const P4TableInfo& tableInfo, const P4HandleMgr& handles, const RestoreMode& restore,
            PendingOperations& pending)
      : tableInfo_(tableInfo), handles_(handles), restore_(restore), pending_(pending) {}

  // Returns the handle. A refusal leaves the row as it was, or tells the handle, whose entry is
  // then to be put back. `isNew`: the entry is.
  EntryHandle write(const WritableTable& table, EntryHandle handle, bool isNew,
                    const RowFields& fields);
  EntryHandle deleteRow(const WritableTable& table, EntryHandle handle, const std::string& rowKey);
  // The entry's update is complete without a change of its row.
  void completeAtOnce(const WritableTable& table, EntryHandle handle, const std::string& rowKey,
                      bool isNew);

 private:
  void writeRow(const WritableTable& table, EntryHandle handle, bool isNew,
                const RowFields& fields);
  void restoreRow(const WritableTable& table, EntryHandle handle, bool stands,
                  const Lattice::Row& row);
  void requireOwnRow(const WritableTable& table, const std::string& rowKey,
                     EntryHandle handle) const;

  const P4TableInfo& tableInfo_;
  const P4HandleMgr& handles_;
  const RestoreMode& restore_;
  PendingOperations& pending_;
};

}  // namespace P4Runtime
