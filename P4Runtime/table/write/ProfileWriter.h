// Adds, changes and deletes the members and groups of action profiles.
#pragma once

#include "P4Runtime/companion/P4HandleMgr.h"
#include "P4Runtime/table/rows/ProfileRows.h"
#include "P4Runtime/table/rows/RowBuilder.h"
#include "P4Runtime/table/write/RowWriter.h"
#include "P4Runtime/table/write/WritableTables.h"

namespace P4Runtime {

// Members and groups go by their handles: upper half 0 and 1, the lower half keys the row. Asserts
// that a handle is of its kind. All return the entry handle that batch and pending operations go
// by. Call with the activity lock held; all that is handed in outlives this.
class ProfileWriter {
 public:
  ProfileWriter(const P4TableInfo& tableInfo, const P4HandleMgr& handles,
                const WritableTables& tables, RowBuilder& builder, RowWriter& writer)
      : tableInfo_(tableInfo),
        handles_(handles),
        tables_(tables),
        builder_(builder),
        writer_(writer) {}

  // A member that exists is changed.
  EntryHandle addMember(uint32_t actProfId, const ActionData& action, MemberHandle mbrHandle);
  EntryHandle deleteMember(uint32_t actProfId, MemberHandle mbrHandle);
  // Complete at once: only the group's record, or the bytes beside it, change.
  EntryHandle addGroup(uint32_t actProfId, GroupHandle grpHandle);
  EntryHandle touchGroup(uint32_t actProfId, GroupHandle grpHandle);
  EntryHandle deleteGroup(uint32_t actProfId, GroupHandle grpHandle);
  EntryHandle addGroupMember(uint32_t actProfId, GroupHandle grpHandle, MemberHandle mbrHandle);
  EntryHandle deleteGroupMember(uint32_t actProfId, GroupHandle grpHandle, MemberHandle mbrHandle);
  // The group's row, whole.
  EntryHandle writeGroup(const WritableTable& table, GroupHandle grpHandle,
                         const GroupMembers& members);

 private:
  EntryHandle completeGroupAtOnce(uint32_t actProfId, GroupHandle grpHandle, bool isNew);
  GroupMembers membersToAddTo(const WritableTable& table, GroupHandle grpHandle,
                              uint32_t memberId) const;

  const P4TableInfo& tableInfo_;
  const P4HandleMgr& handles_;
  const WritableTables& tables_;
  RowBuilder& builder_;
  RowWriter& writer_;
};

}  // namespace P4Runtime
