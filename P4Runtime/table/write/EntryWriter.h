// Adds, changes and deletes table entries.
#pragma once

#include "P4Runtime/companion/P4HandleMgr.h"
#include "P4Runtime/table/rows/RowBuilder.h"
#include "P4Runtime/table/write/RowWriter.h"
#include "P4Runtime/table/write/WritableTables.h"

namespace P4Runtime {

// Call with the activity lock held; all that is handed in outlives this. Refusals leave nothing
// behind, or tell the handle of the entry that is then to be put back.
class EntryWriter {
 public:
  EntryWriter(const P4TableInfo& tableInfo, P4HandleMgr& handles, const WritableTables& tables,
              RowBuilder& builder, RowWriter& writer)
      : tableInfo_(tableInfo),
        handles_(handles),
        tables_(tables),
        builder_(builder),
        writer_(writer) {}

  // An entry that exists is changed. All return its handle.
  EntryHandle add(const MatchKey& key, const ActionData& action, const DirectResources& direct);
  EntryHandle addIndirect(const MatchKey& key, const MemberOrGroup& target,
                          const DirectResources& direct);
  EntryHandle deleteEntry(const MatchKey& key);

 private:
  template <typename AppendAction>
  EntryHandle addEntry(const MatchKey& key, const DirectResources& direct,
                       AppendAction appendAction);
  template <typename AppendAction>
  EntryHandle writeEntry(const WritableTable& table, const MatchKey& key, EntryHandle handle,
                         bool isNew, const DirectResources& direct, AppendAction appendAction);

  const P4TableInfo& tableInfo_;
  P4HandleMgr& handles_;
  const WritableTables& tables_;
  RowBuilder& builder_;
  RowWriter& writer_;
};

}  // namespace P4Runtime
