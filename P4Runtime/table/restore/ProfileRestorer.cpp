#include "P4Runtime/table/restore/ProfileRestorer.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

#include "PI/int/pi_int.h"
#include "PI/pi.h"
#include "PI/pi_extensions.h"
#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("TableImpl");

constexpr const char* notTaken = "its handle is another's, or none that was ever given out";

std::string_view bytes(const CachePodArray<uint8_t>& array) {
  return {reinterpret_cast<const char*>(array.data()), array.size()};
}

}  // namespace

ProfileRestorer::ProfileRestorer(const RestoreTools& tools, uint64_t deviceId)
    : tools_(tools),
      deviceId_(deviceId),
      p4info_(pi_get_device_p4info(deviceId)),
      members_{CacheWalk<Member>(*tools.records.memberCache()), 0, {}, {}},
      groups_{CacheWalk<Group>(*tools.records.groupCache()), 0, {}, {}} {}

bool ProfileRestorer::restoreMembers(RestoreSlice& slice, RestoreCounts& counts) {
  if (!advance(members_, slice)) return false;
  counts.members += finish(members_, *tools_.records.memberCache(), counts);
  return true;
}

bool ProfileRestorer::restoreGroups(RestoreSlice& slice, RestoreCounts& counts) {
  if (!advance(groups_, slice)) return false;
  counts.groups += finish(groups_, *tools_.records.groupCache(), counts);
  return true;
}

template <typename Record>
bool ProfileRestorer::advance(Pass<Record>& pass, RestoreSlice& slice) {
  return pass.walk.advance([&](Brine::Bytes key, Brine::Bytes stored) {
    Record record;
    const Obstacle why =
        record.deserialize(stored.data(), stored.size()) ? restore(record) : "unreadable record";
    if (why) {
      const CacheKey of = cacheKeyOf(key);
      SCRIVEL_TRACE(0, "TableImpl", " cannot restore action profile entry[ rid:", of.rid.id,
                    " entryHandle:", of.entryHandle, " ]: ", *why);
      pass.unusable.emplace_back(Brine::asText(key));
      pass.reasons.push_back(fmt::format("{}: {}", text(of, record), *why));
    } else {
      ++pass.back;
    }
    return !slice.isOver();
  });
}

// Returns how many are back.
template <typename Record>
size_t ProfileRestorer::finish(Pass<Record>& pass, EntryCache<Record>& cache,
                               RestoreCounts& counts) {
  for (const std::string& key : pass.unusable) {
    cache.storedKeyDel(Brine::asBytes(key));
    tools_.records.metadataDel(Brine::asBytes(key));
  }
  std::ranges::move(pass.reasons, std::back_inserter(counts.unusable));
  return pass.back;
}

std::string ProfileRestorer::text(const CacheKey& key, const Member& record) const {
  return text("member", key, record.memberId);
}

std::string ProfileRestorer::text(const CacheKey& key, const Group& record) const {
  return text("group", key, record.groupId);
}

// By the controller's id where the record tells it.
std::string ProfileRestorer::text(const char* what, const CacheKey& key,
                                  uint32_t controllersId) const {
  const std::string profile = tools_.tableInfo.nameOf({actionProfileResource, key.rid.id});
  if (controllersId != 0) {
    return fmt::format("{} {} of action profile {}", what, controllersId, profile);
  }
  return fmt::format("a {} of action profile {}, handle {}", what, profile, key.entryHandle);
}

Obstacle ProfileRestorer::restore(const Member& record) {
  const bool bound = bindHandle(record);
  SCRIVEL_TRACE(6, "TableImpl", " Restoring action member entry[ rid:", record.key.rid.id,
                " entryHandle:", record.key.entryHandle, " ]");
  if (!bound) return notTaken;
  return programAndHandBack(tools_.handles.memberHandleToEntryHandle(record.memberHandle), record);
}

Obstacle ProfileRestorer::restore(const Group& record) {
  const bool bound = bindHandle(record);
  SCRIVEL_TRACE(6, "TableImpl", " Restoring action group entry[ rid:", record.key.rid.id,
                " entryHandle:", record.key.entryHandle, " ]");
  if (!bound) return notTaken;
  return programAndHandBack(tools_.handles.groupHandleToEntryHandle(record.groupHandle),
                            withMembersThere(record));
}

bool ProfileRestorer::bindHandle(const Member& record) {
  const ResourceId& rid = record.key.rid;
  return rid.type == actionProfileResource && record.memberHandle == record.key.entryHandle &&
         tools_.handles.restoreMemberHandle(rid.id, record.memberHandle);
}

bool ProfileRestorer::bindHandle(const Group& record) {
  const ResourceId& rid = record.key.rid;
  return rid.type == groupTableResource && record.groupHandle == record.key.entryHandle &&
         tools_.handles.restoreGroupHandle(rid.id, record.groupHandle);
}

// A member that could not be restored is in no group any more.
ActionProfileGroupCacheEntry ProfileRestorer::withMembersThere(const Group& stored) {
  Group record = stored;
  std::vector<MemberHandle> there(stored.members.begin(), stored.members.end());
  std::erase_if(there, [&](MemberHandle member) {
    return member >> 32 != 0 || !tools_.handles.memberHandleToEntryHandleHas(member);
  });
  record.members.elementsAre(there);
  if (record != stored) tools_.records.groupCache()->cacheIs(record);
  return record;
}

// Common to both kinds. With an obstacle, nothing of the object is left but its record.
template <typename Record>
Obstacle ProfileRestorer::programAndHandBack(EntryHandle handle, const Record& record) {
  Obstacle why = obstacleTo([&] {
    program(record);
    return obstacleOf(handBack(record));
  });
  if (!why) return why;
  removeRow(handle);
  tools_.handles.freeEntryHandle(handle);
  return why;
}

void ProfileRestorer::program(const Member& record) {
  tools_.profileWriter.addMember(record.key.rid.id,
                                 {.actionId = record.actionId, .bytes = bytes(record.actionData)},
                                 record.memberHandle);
}

// The row is written whole: member by member, each step would be a change for the forwarding
// agents. A group that has no row has none yet; one that is empty may have had members before.
void ProfileRestorer::program(const Group& record) {
  const WritableTable table = tools_.tables.require(record.key.rid);
  const auto id = static_cast<uint32_t>(record.groupHandle);
  const auto hasRow = [&] {
    return table.interface.row(profileRowKey(table.constructor, id)).has_value();
  };
  if (record.members.size() == 0 && !hasRow()) return;
  tools_.profileWriter.writeGroup(table, record.groupHandle,
                                  GroupMembers(record.members.begin(), record.members.end()));
}

// The row may have been written just now, so that it is not among the committed ones yet.
void ProfileRestorer::removeRow(EntryHandle handle) try {
  const ResourceId rid = tools_.handles.entryHandleToResourceId(handle);
  const auto& interface = tools_.tableInfo.latticeTableInterface(rid);
  const auto& constructor = tools_.tableInfo.rowConstructor(rid);
  if (!interface || !constructor || !interface->ready()) return;
  const auto id = static_cast<uint32_t>(P4HandleMgr::cachedHandle(handle));
  interface->rowDel(profileRowKey(*constructor, id), handle);
} catch (const Lattice::TypeError&) {  // no row of ours has a key of such a type
}

pi_status_t ProfileRestorer::handBack(const Member& record) {
  const pi_action_data_t action{.p4info = p4info_,
                                .action_id = record.actionId,
                                .data_size = record.actionData.size(),
                                .data = const_cast<char*>(bytes(record.actionData).data())};
  const std::string metadata = tools_.records.metadata(record.key);
  return pi_restore_action_profile_member_state(deviceId_, record.key.rid.id, &action,
                                                record.memberId, record.memberHandle,
                                                metadata.data(), metadata.size());
}

pi_status_t ProfileRestorer::handBack(const Group& record) {
  const std::string metadata = tools_.records.metadata(record.key);
  return pi_restore_action_profile_group_state(
      deviceId_, record.key.rid.id, record.groupId, record.members.data(), record.members.size(),
      record.groupHandle, metadata.data(), metadata.size());
}

}  // namespace P4Runtime
