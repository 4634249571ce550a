#include "P4Runtime/table/target/ProfileFetch.h"

#include <algorithm>
#include <memory>

#include "P4Runtime/table/target/FetchBuffer.h"
#include "PI/int/pi_int.h"
#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("KorvelPiActionProfile");

constexpr size_t memberBytes = 16;  // handle, action id, size
constexpr size_t groupBytes = 16;   // handle, number of members, index of the first

// Visits the readable records of a profile's cache whose handle is in use.
template <typename Record, typename Visit>
void forEachRecord(const EntryCache<Record>& cache, const P4HandleMgr& handles,
                   const ResourceId& rid, Visit visit) {
  cache.forEachOf(rid, [&](Brine::Bytes, Brine::Bytes stored) {
    Record record;
    if (!record.deserialize(stored.data(), stored.size())) {
      SCRIVEL_TRACE(0, "populateFetchData", " unreadable record of profile ", rid.id);
      return true;
    }
    const uint64_t handle = record.key.entryHandle;
    const bool used = rid.type == groupTableResource ? handles.groupHandleToEntryHandleHas(handle)
                                                     : handles.memberHandleToEntryHandleHas(handle);
    if (used) visit(record);
    return true;
  });
}

}  // namespace

void populateMemberFetchData(const TableImpl& tableImpl, pi_p4_id_t actProfId,
                             pi_act_prof_fetch_res_t* res) {
  const ResourceId rid{actionProfileResource, actProfId};
  size_t count = 0;
  size_t bytes = 0;
  forEachRecord(*tableImpl.memberCache(), tableImpl.handleMgr(), rid,
                [&](const ActionProfileMemberCacheEntry& member) {
                  ++count;
                  bytes += memberBytes + member.actionData.size();
                });
  FetchBuffer buffer(bytes);
  forEachRecord(*tableImpl.memberCache(), tableImpl.handleMgr(), rid,
                [&](const ActionProfileMemberCacheEntry& member) {
                  buffer.put(member.memberHandle);
                  buffer.put(member.actionId);
                  buffer.put(member.actionData.size());
                  buffer.put(member.actionData.data(), member.actionData.size());
                });
  res->num_members = count;
  res->entries_members_size = bytes;
  res->entries_members = buffer.release();
}

void populateGroupFetchData(const TableImpl& tableImpl, pi_p4_id_t actProfId,
                            pi_act_prof_fetch_res_t* res) {
  const ResourceId rid{groupTableResource, actProfId};
  size_t groups = 0;
  size_t members = 0;
  forEachRecord(*tableImpl.groupCache(), tableImpl.handleMgr(), rid,
                [&](const ActionProfileGroupCacheEntry& group) {
                  ++groups;
                  members += group.members.size();
                });
  FetchBuffer buffer(groups * groupBytes);
  auto handles = std::make_unique<pi_indirect_handle_t[]>(members);
  uint32_t index = 0;
  forEachRecord(*tableImpl.groupCache(), tableImpl.handleMgr(), rid,
                [&](const ActionProfileGroupCacheEntry& group) {
                  buffer.put(group.groupHandle);
                  buffer.put(group.members.size());
                  buffer.put(index);
                  std::copy(group.members.begin(), group.members.end(), handles.get() + index);
                  index += group.members.size();
                });
  res->num_groups = groups;
  res->entries_groups_size = groups * groupBytes;
  res->entries_groups = buffer.release();
  res->num_cumulated_mbr_handles = members;
  res->mbr_handles = handles.release();
}

}  // namespace P4Runtime
