// Adds, changes and deletes table entries.
#pragma once

#include <string>

#include "P4Runtime/companion/P4HandleMgr.h"
#include "P4Runtime/table/records/EntryKeys.h"
#include "P4Runtime/table/rows/RowBuilder.h"
#include "P4Runtime/table/write/BatchDeletions.h"
#include "P4Runtime/table/write/RowWriter.h"
#include "P4Runtime/table/write/WritableTables.h"

namespace P4Runtime {

// Call with the activity lock held; all that is handed in outlives this. Refusals leave nothing
// behind, or tell the handle of the entry that is then to be put back.
class EntryWriter {
 public:
  // `database` may be null: nothing is ever stored.
  EntryWriter(const P4TableInfo& tableInfo, P4HandleMgr& handles, const EntryKeys& keys,
              Lattice::Database* database, const WritableTables& tables, RowBuilder& builder,
              RowWriter& writer)
      : tableInfo_(tableInfo),
        handles_(handles),
        keys_(keys),
        database_(database),
        tables_(tables),
        builder_(builder),
        writer_(writer) {}

  // An entry that exists is changed. Its record has the controller's metadata of the current
  // update. All return its handle.
  EntryHandle add(const MatchKey& key, const ActionData& action, const DirectResources& direct);
  EntryHandle addIndirect(const MatchKey& key, const MemberOrGroup& target,
                          const DirectResources& direct);
  EntryHandle deleteEntry(const MatchKey& key);

  // For a restore: the row that the record makes; valid until the next row is made. The same row
  // is then written, if it must be, under the record's own handle.
  const Lattice::Row& rowOf(const WritableTable& table, const TableRecordView& record);
  void restoreEntry(const WritableTable& table, const TableRecordView& record);

 private:
  EntryHandle addEntry(const WritableTable& table, const MatchKey& key);
  void markCounter(const WritableTable& table, const MatchKey& key);
  void findEntry(const WritableTable& table, const MatchKey& key, const std::string& rowKey);
  void noteDeletion(const MatchKey& key, const std::string& rowKey, EntryHandle handle);
  void writeEntry(const WritableTable& table, EntryHandle handle, bool isNew);

  const P4TableInfo& tableInfo_;
  P4HandleMgr& handles_;
  const EntryKeys& keys_;
  Lattice::Database* const database_;
  const WritableTables& tables_;
  RowBuilder& builder_;
  RowWriter& writer_;
  BatchDeletions deleted_;
  // Of the entry that is being written; kept for the memory they hold.
  RowWriter::RowToWrite row_;
  std::string record_;
};

}  // namespace P4Runtime
