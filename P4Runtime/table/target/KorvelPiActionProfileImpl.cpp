// The action profile functions of the PI target interface.
#include <cassert>
#include <exception>

#include "P4Runtime/companion/BatchStatus.h"
#include "P4Runtime/pi/PiContext.h"
#include "P4Runtime/pi/RunUpdate.h"
#include "P4Runtime/pipeline/PiDebug.h"
#include "P4Runtime/table/TableImpl.h"
#include "P4Runtime/table/target/ProfileFetch.h"
#include "PI/int/pi_int.h"
#include "PI/pi_extensions.h"
#include "PI/target/pi_act_prof_imp.h"
#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("KorvelPiActionProfile");

P4HandleMgr* handleMgr() { return TheP4HandleMgr(); }

// The entry handle of the member or group to be written. Throw the error that the batch has already
// recorded for it.
EntryHandle writableMember(MemberHandle mbr_handle) {
  assert(handleMgr()->memberHandleToEntryHandleHas(mbr_handle));
  const EntryHandle handle = handleMgr()->memberHandleToEntryHandle(mbr_handle);
  maybeThrowBatchEntryErrorException(handle);
  return handle;
}

EntryHandle writableGroup(GroupHandle grp_handle) {
  assert(handleMgr()->groupHandleToEntryHandleHas(grp_handle));
  const EntryHandle handle = handleMgr()->groupHandleToEntryHandle(grp_handle);
  maybeThrowBatchEntryErrorException(handle);
  return handle;
}

// Runs `body`, unless the batch has recorded an error for the new handle already; frees the handle
// again when the member or group is refused.
template <typename Body>
void withNewHandle(EntryHandle handle, Body body) {
  try {
    maybeThrowBatchEntryErrorException(handle);
    body();
  } catch (const P4RuntimeException& e) {
    // With the handle in it, the exception's handler puts all back and frees the handle.
    if (e.entryHandle == 0) handleMgr()->freeEntryHandle(handle);
    throw;
  } catch (...) {
    handleMgr()->freeEntryHandle(handle);
    throw;
  }
}

ActionData dataOf(const pi_action_data_t& action) {
  return {.actionId = action.action_id, .bytes = {action.data, action.data_size}};
}

void cacheMember(pi_p4_id_t actProfId, EntryHandle handle, const pi_action_data_t& action) {
  const ResourceId rid{actionProfileResource, actProfId};
  storeOrFail(handle, [&] {
    TheTableImpl()->addCachedEntry(rid, handle, action, pi_batch_current_controller_id());
    TheTableImpl()->cachedMetadataIs(rid, handle, currentMetadata());
  });
  TheBatchStatus()->newEntryHandleForBatchOffset(handle, pi_batch_current_offset());
}

// The group keeps the controller's id of its creation.
void cacheGroup(pi_p4_id_t actProfId, EntryHandle handle) {
  const ResourceId rid{groupTableResource, actProfId};
  const auto known =
      TheTableImpl()->groupCache()
          ? TheTableImpl()->groupCache()->cache({rid, handleMgr()->cachedHandle(handle)})
          : std::nullopt;
  const uint32_t groupId = known ? known->groupId : pi_batch_current_controller_id();
  storeOrFail(handle, [&] { TheTableImpl()->addCachedEntry(rid, handle, groupId); });
  TheBatchStatus()->newEntryHandleForBatchOffset(handle, pi_batch_current_offset());
}

void cacheGroupMetadata(pi_p4_id_t actProfId, EntryHandle handle) {
  storeOrFail(handle, [&] {
    TheTableImpl()->cachedMetadataIs({groupTableResource, actProfId}, handle, currentMetadata());
  });
}

using MemberChange = EntryHandle (TableImpl::*)(uint32_t actProfId, GroupHandle group,
                                                MemberHandle member);

// Gives a group one member more, or one fewer; its record follows.
pi_status_t changeMembers(const char* function, pi_session_handle_t session_handle,
                          pi_dev_id_t dev_id, pi_p4_id_t act_prof_id,
                          pi_indirect_handle_t grp_handle, pi_indirect_handle_t mbr_handle,
                          MemberChange change) {
  return runUpdate([&] {
    SCRIVEL_TRACE(6, function, " session_handle: ", session_handle, " dev_id: ", dev_id,
                  " act_prof_id: ", act_prof_id, " grp_handle: ", grp_handle,
                  " mbr_handle: ", mbr_handle);
    const EntryHandle handle = writableGroup(grp_handle);
    (TheTableImpl()->*change)(act_prof_id, grp_handle, mbr_handle);
    cacheGroup(act_prof_id, handle);
  });
}

void deleteCached(const ResourceId& rid, EntryHandle handle) {
  storeOrFail(handle, [&] { TheTableImpl()->deleteCachedEntry(rid, handle); });
  TheBatchStatus()->newEntryHandleForBatchOffset(handle, pi_batch_current_offset());
}

}  // namespace
}  // namespace P4Runtime

using namespace P4Runtime;  // NOLINT: the entry points below stand outside any namespace

extern "C" {

pi_status_t _pi_act_prof_mbr_create(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                    pi_p4_id_t act_prof_id, const pi_action_data_t* action_data,
                                    pi_indirect_handle_t* mbr_handle) {
  return runUpdate([&] {
    SCRIVEL_TRACE(6, "_pi_act_prof_mbr_create", " session_handle: ", session_handle,
                  " dev_tgt: ", piDevTgtToString(dev_tgt), " act_prof_id: ", act_prof_id,
                  " action_data: ", piActionDataToString(action_data));
    *mbr_handle = handleMgr()->allocMemberHandle(act_prof_id);
    assert(handleMgr()->memberHandleToEntryHandleHas(*mbr_handle));
    const EntryHandle handle = handleMgr()->memberHandleToEntryHandle(*mbr_handle);
    SCRIVEL_TRACE(6, "_pi_act_prof_mbr_create", " Allocated member handle: ", *mbr_handle,
                  " entryHandle ", handle);
    withNewHandle(handle, [&] {
      TheTableImpl()->actionProfileMemberEntryAdd(act_prof_id, dataOf(*action_data), *mbr_handle);
    });
    cacheMember(act_prof_id, handle, *action_data);
  });
}

pi_status_t _pi_act_prof_mbr_modify(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                    pi_p4_id_t act_prof_id, pi_indirect_handle_t mbr_handle,
                                    const pi_action_data_t* action_data) {
  return runUpdate([&] {
    SCRIVEL_TRACE(6, "_pi_act_prof_mbr_modify", " session_handle: ", session_handle,
                  " dev_id: ", dev_id, " act_prof_id: ", act_prof_id, " mbr_handle: ", mbr_handle,
                  " action_data: ", piActionDataToString(action_data));
    const EntryHandle handle = writableMember(mbr_handle);
    TheTableImpl()->actionProfileMemberEntryAdd(act_prof_id, dataOf(*action_data), mbr_handle);
    cacheMember(act_prof_id, handle, *action_data);
  });
}

// The handle is free for others only once the forwarding plane has confirmed.
pi_status_t _pi_act_prof_mbr_delete(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                    pi_p4_id_t act_prof_id, pi_indirect_handle_t mbr_handle) {
  return runUpdate([&] {
    SCRIVEL_TRACE(6, "_pi_act_prof_mbr_delete", " session_handle: ", session_handle,
                  " dev_id: ", dev_id, " act_prof_id: ", act_prof_id, " mbr_handle: ", mbr_handle);
    const EntryHandle handle = writableMember(mbr_handle);
    TheTableImpl()->actionProfileMemberEntryDelete(act_prof_id, mbr_handle);
    deleteCached({actionProfileResource, act_prof_id}, handle);
  });
}

pi_status_t _pi_act_prof_grp_create(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                    pi_p4_id_t act_prof_id, size_t max_size,
                                    pi_indirect_handle_t* grp_handle) {
  return runUpdate([&] {
    SCRIVEL_TRACE(6, "_pi_act_prof_grp_create", " session_handle: ", session_handle,
                  " dev_tgt: ", piDevTgtToString(dev_tgt), " act_prof_id: ", act_prof_id,
                  " max_size: ", max_size);
    *grp_handle = handleMgr()->allocGroupHandle(act_prof_id);
    assert(handleMgr()->groupHandleToEntryHandleHas(*grp_handle));
    const EntryHandle handle = handleMgr()->groupHandleToEntryHandle(*grp_handle);
    SCRIVEL_TRACE(6, "_pi_act_prof_grp_create", " Allocated group handle: ", *grp_handle,
                  " entryHandle ", handle);
    withNewHandle(handle,
                  [&] { TheTableImpl()->actionProfileGroupEntryAdd(act_prof_id, *grp_handle); });
    cacheGroup(act_prof_id, handle);
    cacheGroupMetadata(act_prof_id, handle);
  });
}

pi_status_t _pi_act_prof_grp_delete(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                    pi_p4_id_t act_prof_id, pi_indirect_handle_t grp_handle) {
  return runUpdate([&] {
    SCRIVEL_TRACE(6, "_pi_act_prof_grp_delete", " session_handle: ", session_handle,
                  " dev_id: ", dev_id, " act_prof_id: ", act_prof_id, " grp_handle: ", grp_handle);
    const EntryHandle handle = writableGroup(grp_handle);
    TheTableImpl()->actionProfileGroupEntryDelete(act_prof_id, grp_handle);
    deleteCached({groupTableResource, act_prof_id}, handle);
  });
}

pi_status_t _pi_act_prof_grp_add_mbr(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                     pi_p4_id_t act_prof_id, pi_indirect_handle_t grp_handle,
                                     pi_indirect_handle_t mbr_handle) {
  return changeMembers("_pi_act_prof_grp_add_mbr", session_handle, dev_id, act_prof_id, grp_handle,
                       mbr_handle, &TableImpl::actionProfileGroupAddMbr);
}

pi_status_t _pi_act_prof_grp_remove_mbr(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                        pi_p4_id_t act_prof_id, pi_indirect_handle_t grp_handle,
                                        pi_indirect_handle_t mbr_handle) {
  return changeMembers("_pi_act_prof_grp_remove_mbr", session_handle, dev_id, act_prof_id,
                       grp_handle, mbr_handle, &TableImpl::actionProfileGroupDelMbr);
}

pi_status_t _pi_act_prof_grp_metadata_set(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                          pi_p4_id_t act_prof_id, pi_indirect_handle_t grp_handle) {
  return runUpdate([&] {
    SCRIVEL_TRACE(6, "_pi_act_prof_grp_metadata_set", " session_handle: ", session_handle,
                  " dev_id: ", dev_id, " act_prof_id: ", act_prof_id, " grp_handle: ", grp_handle);
    const EntryHandle handle = writableGroup(grp_handle);
    TheTableImpl()->actionProfileGroupTouch(act_prof_id, grp_handle);
    cacheGroupMetadata(act_prof_id, handle);
    TheBatchStatus()->newEntryHandleForBatchOffset(handle, pi_batch_current_offset());
  });
}

pi_status_t _pi_act_prof_entries_fetch(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                       pi_p4_id_t act_prof_id, pi_act_prof_fetch_res_t* res) try {
  const Vela::ActivityLock lock;
  SCRIVEL_TRACE(6, "_pi_act_prof_entries_fetch", " session_handle: ", session_handle,
                " dev_id: ", dev_id, " act_prof_id: ", act_prof_id);
  const TableImpl& tableImpl = *TheTableImpl();
  if (tableImpl.cacheLetGo()) return PI_STATUS_TARGET_TRANSPORT_ERROR;
  if (!tableImpl.memberCache()) return PI_STATUS_SUCCESS;  // nothing is programmed yet
  populateMemberFetchData(tableImpl, act_prof_id, res);
  populateGroupFetchData(tableImpl, act_prof_id, res);
  return PI_STATUS_SUCCESS;
} catch (const std::exception& e) {
  SCRIVEL_TRACE(0, "_pi_act_prof_entries_fetch", " act_prof_id: ", act_prof_id, " ", e.what());
  _pi_act_prof_entries_fetch_done(session_handle, res);
  return PI_STATUS_ALLOC_ERROR;
}

pi_status_t _pi_act_prof_entries_fetch_done(pi_session_handle_t session_handle,
                                            pi_act_prof_fetch_res_t* res) {
  const Vela::ActivityLock lock;
  SCRIVEL_TRACE(6, "_pi_act_prof_entries_fetch_done", " session_handle: ", session_handle);
  delete[] res->entries_members;
  delete[] res->entries_groups;
  delete[] res->mbr_handles;
  res->entries_members = res->entries_groups = nullptr;
  res->mbr_handles = nullptr;
  return PI_STATUS_SUCCESS;
}

}  // extern "C"
