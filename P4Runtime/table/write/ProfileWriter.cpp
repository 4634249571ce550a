#include "P4Runtime/table/write/ProfileWriter.h"

#include <fmt/format.h>

#include <algorithm>

#include "P4Runtime/table/rows/Refuse.h"
#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("TableImpl");

}  // namespace

EntryHandle ProfileWriter::addMember(uint32_t actProfId, const ActionData& action,
                                     MemberHandle mbrHandle) {
  validateActionSize(action.bytes.size());
  const WritableTable table = tables_.require({actionProfileResource, actProfId});
  RowFields& fields = builder_.startMemberOrGroup(checkedMemberId(mbrHandle));
  const EntryHandle handle = handles_.memberHandleToEntryHandle(mbrHandle);
  const bool isNew = !table.interface.row(table.constructor.constructKey(fields.all()));
  if (isNew) tables_.maybeCheckTableSizeLimit(table.rid, handle);  // a change always fits
  builder_.appendAction(table.rid, action, fields);
  return writer_.write(table, handle, isNew, fields);
}

EntryHandle ProfileWriter::deleteMember(uint32_t actProfId, MemberHandle mbrHandle) {
  const WritableTable table = tables_.require({actionProfileResource, actProfId});
  const RowFields& fields = builder_.startMemberOrGroup(checkedMemberId(mbrHandle));
  return writer_.deleteRow(table, handles_.memberHandleToEntryHandle(mbrHandle),
                           table.constructor.constructKey(fields.all()));
}

EntryHandle ProfileWriter::addGroup(uint32_t actProfId, GroupHandle grpHandle) {
  return completeGroupAtOnce(actProfId, grpHandle, true);
}

EntryHandle ProfileWriter::touchGroup(uint32_t actProfId, GroupHandle grpHandle) {
  return completeGroupAtOnce(actProfId, grpHandle, false);
}

EntryHandle ProfileWriter::completeGroupAtOnce(uint32_t actProfId, GroupHandle grpHandle,
                                               bool isNew) {
  const WritableTable table = tables_.require({groupTableResource, actProfId});
  checkedGroupId(grpHandle);
  const EntryHandle handle = handles_.groupHandleToEntryHandle(grpHandle);
  writer_.completeAtOnce(table, handle, isNew);
  return handle;
}

EntryHandle ProfileWriter::deleteGroup(uint32_t actProfId, GroupHandle grpHandle) {
  const WritableTable table = tables_.require({groupTableResource, actProfId});
  const RowFields& fields = builder_.startMemberOrGroup(checkedGroupId(grpHandle));
  return writer_.deleteRow(table, handles_.groupHandleToEntryHandle(grpHandle),
                           table.constructor.constructKey(fields.all()));
}

EntryHandle ProfileWriter::writeGroup(const WritableTable& table, GroupHandle grpHandle,
                                      const GroupMembers& members) {
  RowFields& fields = builder_.startMemberOrGroup(checkedGroupId(grpHandle));
  fields.memberIds = {members.data(), static_cast<uint32_t>(members.size())};
  fields.append(&fields.memberIds);
  // The group itself is there: only its record tells how it was before.
  return writer_.write(table, handles_.groupHandleToEntryHandle(grpHandle), false, fields);
}

EntryHandle ProfileWriter::addGroupMember(uint32_t actProfId, GroupHandle grpHandle,
                                          MemberHandle mbrHandle) {
  const WritableTable table = tables_.require({groupTableResource, actProfId});
  const uint32_t memberId = checkedMemberId(mbrHandle);
  GroupMembers members = membersToAddTo(table, grpHandle, memberId);
  if (members.size() >= CachePodArray<MemberHandle>::capacity) {
    refuse(ErrorCode::tableFull,
           fmt::format("a group of {} holds at most {} members, each as often as it weighs",
                       tableInfo_.nameOf(table.rid), CachePodArray<MemberHandle>::capacity));
  }
  members.push_back(memberId);
  return writeGroup(table, grpHandle, members);
}

// A first member needs room for the group's row.
GroupMembers ProfileWriter::membersToAddTo(const WritableTable& table, GroupHandle grpHandle,
                                           uint32_t memberId) const {
  auto members = groupMembers(tableInfo_, table, grpHandle);
  if (!members) {
    tables_.maybeCheckTableSizeLimit(table.rid, handles_.groupHandleToEntryHandle(grpHandle));
    return {};
  }
  SCRIVEL_TRACE(6, "TableImpl", "Found groupId: ", checkedGroupId(grpHandle));
  if (std::find(members->begin(), members->end(), memberId) != members->end()) {
    SCRIVEL_TRACE(6, "TableImpl", memberId, " already created in group tableId ", table.rid.id);
  }
  return std::move(*members);
}

EntryHandle ProfileWriter::deleteGroupMember(uint32_t actProfId, GroupHandle grpHandle,
                                             MemberHandle mbrHandle) {
  const WritableTable table = tables_.require({groupTableResource, actProfId});
  auto members = groupMembers(tableInfo_, table, grpHandle);
  if (!members) {
    refuse(ErrorCode::invalidKey,
           fmt::format("group id {} not found, cannot delete", checkedGroupId(grpHandle)));
  }
  // One of them: a member is there as often as it weighs.
  const auto found = std::find(members->begin(), members->end(), checkedMemberId(mbrHandle));
  if (found != members->end()) members->erase(found);
  return writeGroup(table, grpHandle, *members);
}

}  // namespace P4Runtime
