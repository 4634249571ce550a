// Members and groups of action profiles: their rows, and what puts them back.
#include <fmt/format.h>

#include <algorithm>
#include <cassert>
#include <cstring>
#include <utility>

#include "P4Runtime/companion/BatchStatus.h"
#include "P4Runtime/pi/P4RuntimeException.h"
#include "P4Runtime/pi/PiContext.h"
#include "P4Runtime/table/TableImpl.h"
#include "P4Runtime/table/rows/RowFields.h"
#include "PI/pi_extensions.h"
#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("TableImpl");

[[noreturn]] void refuse(ErrorCode code, const std::string& message, EntryHandle handle = 0) {
  throw P4RuntimeException(message, handle, pi_batch_current_offset(), code);
}

uint32_t checkedMemberId(MemberHandle mbrHandle) {
  assert(mbrHandle >> 32 == 0);
  const auto memberId = static_cast<uint32_t>(mbrHandle);
  assert(memberId > 0);
  return memberId;
}

uint32_t checkedGroupId(GroupHandle grpHandle) {
  assert(grpHandle >> 32 == 1);
  const auto groupId = static_cast<uint32_t>(grpHandle);
  assert(groupId > 0);
  return groupId;
}

}  // namespace

RowFields& TableImpl::startRow(uint32_t id) {
  RowFields& fields = *rowFields_;
  fields.count = 0;
  fields.id = id;
  tableInfo_->onNewRowStarted();
  fields.append(&fields.id);
  return fields;
}

EntryHandle TableImpl::actionProfileMemberEntryAdd(uint32_t actProfId, uint32_t actionId,
                                                   size_t actionSize, const char* action,
                                                   MemberHandle mbrHandle) {
  validateActionSize(actionSize);
  const Table table = requireTable({actionProfileResource, actProfId});
  RowFields& fields = startRow(checkedMemberId(mbrHandle));
  const EntryHandle handle = handleMgr_->memberHandleToEntryHandle(mbrHandle);
  const std::string rowKey = table.constructor.constructKey({fields.pointers.data(), fields.count});
  const bool isNew = !table.interface.row(rowKey);
  if (isNew) maybeCheckTableSizeLimit(table.rid, handle);  // a change of a member always fits
  std::copy_n(action, actionSize, fields.actionBytes.data());
  extractActionFields(table.rid, actionId, actionSize, fields.actionBytes.data(), fields.count,
                      fields.pointers.data());
  return writeEntry(table, handle, isNew, fields);
}

EntryHandle TableImpl::actionProfileMemberEntryDelete(uint32_t actProfId, MemberHandle mbrHandle) {
  const Table table = requireTable({actionProfileResource, actProfId});
  const RowFields& fields = startRow(checkedMemberId(mbrHandle));
  return deleteRow(table, handleMgr_->memberHandleToEntryHandle(mbrHandle),
                   table.constructor.constructKey({fields.pointers.data(), fields.count}));
}

EntryHandle TableImpl::actionProfileGroupEntryAdd(uint32_t actProfId, GroupHandle grpHandle) {
  const Table table = requireTable({groupTableResource, actProfId});
  return completeAtOnce(table, grpHandle, true);
}

EntryHandle TableImpl::actionProfileGroupTouch(uint32_t actProfId, GroupHandle grpHandle) {
  const Table table = requireTable({groupTableResource, actProfId});
  return completeAtOnce(table, grpHandle, false);
}

// What concerns only the agent: there is nothing for the forwarding plane to confirm, unless an
// earlier write of the batch waits for it.
EntryHandle TableImpl::completeAtOnce(const Table& table, GroupHandle grpHandle, bool isNew) {
  const RowFields& fields = startRow(checkedGroupId(grpHandle));
  const EntryHandle handle = handleMgr_->groupHandleToEntryHandle(grpHandle);
  const std::string rowKey = table.constructor.constructKey({fields.pointers.data(), fields.count});
  const auto known = pendingOperations_.find(handle);
  if (known != pendingOperations_.end() && known->second.awaited) return handle;
  newPendingOperation(handle, PendingOperationType::entryAdd, table.rid,
                      table.interface.row(rowKey), std::nullopt, rowKey, isNew);
  SCRIVEL_TRACE(6, "TableImpl", " Pretend success for entryHandle ", handle, " and offset ",
                pi_batch_current_offset());
  TheBatchStatus()->completedTransactionStatusIs({handle, 0});
  return handle;
}

EntryHandle TableImpl::actionProfileGroupEntryDelete(uint32_t actProfId, GroupHandle grpHandle) {
  const Table table = requireTable({groupTableResource, actProfId});
  const RowFields& fields = startRow(checkedGroupId(grpHandle));
  return deleteRow(table, handleMgr_->groupHandleToEntryHandle(grpHandle),
                   table.constructor.constructKey({fields.pointers.data(), fields.count}));
}

// Nothing when the group has no row. Its value is one array of 32-bit ids; the agreement of types
// was checked when the pipeline came up.
std::optional<TableImpl::GroupMembers> TableImpl::groupMembers(const Table& table,
                                                               GroupHandle grpHandle) const {
  const uint32_t groupId = checkedGroupId(grpHandle);
  const auto* field = reinterpret_cast<const uint8_t*>(&groupId);
  const auto row = table.interface.row(table.constructor.constructKey({&field, 1}));
  if (!row) return std::nullopt;
  uint32_t count = 0;
  if (row->value.size() >= sizeof count) std::memcpy(&count, row->value.data(), sizeof count);
  if (row->value.size() != sizeof count + size_t{count} * sizeof(uint32_t)) {
    refuse(ErrorCode::inconsistentState, fmt::format("group id {} of {}: its row cannot be read",
                                                     groupId, tableInfo_->nameOf(table.rid)));
  }
  GroupMembers members(count);
  if (count == 0) return members;  // without memory to copy to
  std::memcpy(members.data(), row->value.data() + sizeof count, count * sizeof(uint32_t));
  return members;
}

EntryHandle TableImpl::writeGroup(const Table& table, GroupHandle grpHandle,
                                  const GroupMembers& members) {
  RowFields& fields = startRow(checkedGroupId(grpHandle));
  fields.memberIds = {members.data(), static_cast<uint32_t>(members.size())};
  fields.append(&fields.memberIds);
  // The group itself is there: only its record tells how it was before.
  return writeEntry(table, handleMgr_->groupHandleToEntryHandle(grpHandle), false, fields);
}

EntryHandle TableImpl::actionProfileGroupAddMbr(uint32_t actProfId, GroupHandle grpHandle,
                                                MemberHandle mbrHandle) {
  const Table table = requireTable({groupTableResource, actProfId});
  const uint32_t memberId = checkedMemberId(mbrHandle);
  auto members = groupMembers(table, grpHandle);
  if (!members) {
    maybeCheckTableSizeLimit(table.rid, handleMgr_->groupHandleToEntryHandle(grpHandle));
    members.emplace();
  } else {
    SCRIVEL_TRACE(6, "TableImpl", "Found groupId: ", checkedGroupId(grpHandle));
    if (std::find(members->begin(), members->end(), memberId) != members->end()) {
      SCRIVEL_TRACE(6, "TableImpl", memberId, " already created in group tableId ", actProfId);
    }
  }
  if (members->size() >= CachePodArray<MemberHandle>::capacity) {
    refuse(ErrorCode::tableFull,
           fmt::format("a group of {} holds at most {} members, each as often as it weighs",
                       tableInfo_->nameOf(table.rid), CachePodArray<MemberHandle>::capacity));
  }
  members->push_back(memberId);
  return writeGroup(table, grpHandle, *members);
}

EntryHandle TableImpl::actionProfileGroupDelMbr(uint32_t actProfId, GroupHandle grpHandle,
                                                MemberHandle mbrHandle) {
  const Table table = requireTable({groupTableResource, actProfId});
  auto members = groupMembers(table, grpHandle);
  if (!members) {
    refuse(ErrorCode::invalidKey,
           fmt::format("group id {} not found, cannot delete", checkedGroupId(grpHandle)));
  }
  // One of them: a member is there as often as it weighs.
  const auto found = std::find(members->begin(), members->end(), checkedMemberId(mbrHandle));
  if (found != members->end()) members->erase(found);
  return writeGroup(table, grpHandle, *members);
}

// "member 7 of action profile ingress.wcmp"; the controller's id where there is one.
std::string TableImpl::profileObjectText(EntryHandle handle) const {
  const CacheKey key = cacheKey(handle);
  const std::string profile = tableInfo_->nameOf({actionProfileResource, key.rid.id});
  const bool isGroup = key.rid.type == groupTableResource;
  uint32_t id = 0;
  if (isGroup) {
    const auto record = groupCache_ ? groupCache_->cache(key) : std::nullopt;
    if (record) id = record->groupId;
  } else {
    const auto record = memberCache_ ? memberCache_->cache(key) : std::nullopt;
    if (record) id = record->memberId;
  }
  const char* const what = isGroup ? "group" : "member";
  if (id == 0) return fmt::format("a {} of a one-shot action set of {}", what, profile);
  return fmt::format("{} {} of action profile {}", what, id, profile);
}

}  // namespace P4Runtime
