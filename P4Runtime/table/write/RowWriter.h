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

  struct RowToWrite {
    Lattice::Row row;
    EntryHandle handle = 0;
    bool isNew = false;           // the entry is
    std::string_view attachment;  // the entry's record
  };
  // Returns the handle. A refusal leaves the row as it was, or tells the handle, whose entry is
  // then to be put back.
  EntryHandle write(const WritableTable& table, const RowToWrite& row);
  // The row of a member or group.
  EntryHandle write(const WritableTable& table, EntryHandle handle, bool isNew,
                    const RowFields& fields);
  // Refuses fields that make no row of the table.
  Lattice::Row rowOf(const WritableTable& table, const RowFields& fields) const;
  EntryHandle deleteRow(const WritableTable& table, EntryHandle handle, const std::string& rowKey);
  // The entry's update is complete without a change of its row.
  void completeAtOnce(const WritableTable& table, EntryHandle handle, bool isNew);

 private:
  void writeRow(const WritableTable& table, const RowToWrite& row);
  void restoreRow(const WritableTable& table, const RowToWrite& row);
  void requireOwnRow(const WritableTable& table, const std::string& rowKey,
                     EntryHandle handle) const;

  const P4TableInfo& tableInfo_;
  const P4HandleMgr& handles_;
  const RestoreMode& restore_;
  PendingOperations& pending_;
};

}  // namespace P4Runtime
