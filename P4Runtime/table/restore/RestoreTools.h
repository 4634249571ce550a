// The parts of table programming with which a restore works.
#pragma once

#include "P4Runtime/companion/P4HandleMgr.h"
#include "P4Runtime/pipeline/P4TableInfo.h"
#include "P4Runtime/table/failures/EntryFailures.h"
#include "P4Runtime/table/failures/EntryNames.h"
#include "P4Runtime/table/records/EntryRecords.h"
#include "P4Runtime/table/rows/RowBuilder.h"
#include "P4Runtime/table/undo/EntryUndo.h"
#include "P4Runtime/table/write/EntryWriter.h"
#include "P4Runtime/table/write/ProfileWriter.h"
#include "P4Runtime/table/write/RestoreMode.h"
#include "P4Runtime/table/write/WritableTables.h"
#include "platform/lattice/Database.h"

namespace P4Runtime {

// All of them outlive the restore.
struct RestoreTools {
  P4TableInfo& tableInfo;
  P4HandleMgr& handles;
  Lattice::Database* database;  // null: nothing survives, and nothing can be restored
  EntryRecords& records;
  const EntryNames& names;
  EntryFailures& failures;
  EntryUndo& undo;
  const WritableTables& tables;
  RestoreMode& mode;
  RowBuilder& rowBuilder;
  EntryWriter& entryWriter;
  ProfileWriter& profileWriter;
};

}  // namespace P4Runtime
