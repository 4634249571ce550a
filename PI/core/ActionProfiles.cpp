// Action profiles: calls to the target, and the decoding of fetched members and groups.
#include "PI/core/FetchReader.h"
#include "PI/int/pi_int.h"
#include "PI/pi.h"
#include "PI/target/pi_act_prof_imp.h"

namespace {

using pi::core::FetchReader;

// The target's result, and room for the member that pi_act_prof_mbrs_next() shows.
struct ActProfFetch : pi_act_prof_fetch_res_s {
  bool membersBroken = false;
  bool groupsBroken = false;
  pi_action_data_t action{};
};

bool readGroup(FetchReader& reader, const ActProfFetch& fetch, pi_indirect_handle_t** members,
               size_t* numMembers, pi_indirect_handle_t* handle) {
  uint32_t count = 0;
  uint32_t first = 0;
  if (!reader.number(handle) || !reader.number(&count) || !reader.number(&first)) return false;
  const size_t available = fetch.mbr_handles ? fetch.num_cumulated_mbr_handles : 0;
  if (first > available || count > available - first) return false;
  *members = count ? fetch.mbr_handles + first : nullptr;
  *numMembers = count;
  return true;
}

}  // namespace

pi_status_t pi_act_prof_mbr_create(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                   pi_p4_id_t act_prof_id, const pi_action_data_t* action_data,
                                   pi_indirect_handle_t* mbr_handle) {
  return _pi_act_prof_mbr_create(session_handle, dev_tgt, act_prof_id, action_data, mbr_handle);
}

pi_status_t pi_act_prof_mbr_delete(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                   pi_p4_id_t act_prof_id, pi_indirect_handle_t mbr_handle) {
  return _pi_act_prof_mbr_delete(session_handle, dev_id, act_prof_id, mbr_handle);
}

pi_status_t pi_act_prof_mbr_modify(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                   pi_p4_id_t act_prof_id, pi_indirect_handle_t mbr_handle,
                                   const pi_action_data_t* action_data) {
  return _pi_act_prof_mbr_modify(session_handle, dev_id, act_prof_id, mbr_handle, action_data);
}

pi_status_t pi_act_prof_grp_create(pi_session_handle_t session_handle, pi_dev_tgt_t dev_tgt,
                                   pi_p4_id_t act_prof_id, size_t max_size,
                                   pi_indirect_handle_t* grp_handle) {
  return _pi_act_prof_grp_create(session_handle, dev_tgt, act_prof_id, max_size, grp_handle);
}

pi_status_t pi_act_prof_grp_delete(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                   pi_p4_id_t act_prof_id, pi_indirect_handle_t grp_handle) {
  return _pi_act_prof_grp_delete(session_handle, dev_id, act_prof_id, grp_handle);
}

pi_status_t pi_act_prof_grp_add_mbr(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                    pi_p4_id_t act_prof_id, pi_indirect_handle_t grp_handle,
                                    pi_indirect_handle_t mbr_handle) {
  return _pi_act_prof_grp_add_mbr(session_handle, dev_id, act_prof_id, grp_handle, mbr_handle);
}

pi_status_t pi_act_prof_grp_remove_mbr(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                       pi_p4_id_t act_prof_id, pi_indirect_handle_t grp_handle,
                                       pi_indirect_handle_t mbr_handle) {
  return _pi_act_prof_grp_remove_mbr(session_handle, dev_id, act_prof_id, grp_handle, mbr_handle);
}

pi_status_t pi_act_prof_grp_metadata_set(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                         pi_p4_id_t act_prof_id, pi_indirect_handle_t grp_handle) {
  return _pi_act_prof_grp_metadata_set(session_handle, dev_id, act_prof_id, grp_handle);
}

pi_status_t pi_act_prof_entries_fetch(pi_session_handle_t session_handle, pi_dev_id_t dev_id,
                                      pi_p4_id_t act_prof_id, pi_act_prof_fetch_res_t** res) {
  *res = nullptr;
  auto* fetch = new ActProfFetch{};
  fetch->p4info = fetch->action.p4info = pi_get_device_p4info(dev_id);
  fetch->act_prof_id = act_prof_id;
  const pi_status_t status = _pi_act_prof_entries_fetch(session_handle, dev_id, act_prof_id, fetch);
  if (status != PI_STATUS_SUCCESS) {
    delete fetch;
    return status;
  }
  *res = fetch;
  return PI_STATUS_SUCCESS;
}

pi_status_t pi_act_prof_entries_fetch_done(pi_session_handle_t session_handle,
                                           pi_act_prof_fetch_res_t* res) {
  if (!res) return PI_STATUS_BUFFER_ERROR;
  const pi_status_t status = _pi_act_prof_entries_fetch_done(session_handle, res);
  delete static_cast<ActProfFetch*>(res);
  return status;
}

size_t pi_act_prof_mbrs_num(const pi_act_prof_fetch_res_t* res) { return res->num_members; }

size_t pi_act_prof_grps_num(const pi_act_prof_fetch_res_t* res) { return res->num_groups; }

pi_status_t pi_act_prof_mbrs_next(pi_act_prof_fetch_res_t* res, pi_action_data_t** action_data,
                                  pi_indirect_handle_t* mbr_handle) {
  auto* fetch = static_cast<ActProfFetch*>(res);
  if (fetch->membersBroken) return PI_STATUS_BUFFER_ERROR;
  if (fetch->idx_members >= fetch->num_members) return PI_STATUS_OUT_OF_BOUND_IDX;
  FetchReader reader(fetch->entries_members, fetch->entries_members_size, fetch->curr_members);
  fetch->membersBroken = !(reader.number(mbr_handle) && reader.actionData(&fetch->action));
  if (fetch->membersBroken) return PI_STATUS_BUFFER_ERROR;
  *action_data = &fetch->action;
  fetch->curr_members = reader.offset();
  ++fetch->idx_members;
  return PI_STATUS_SUCCESS;
}

pi_status_t pi_act_prof_grps_next(pi_act_prof_fetch_res_t* res, pi_indirect_handle_t** mbr_handles,
                                  size_t* num_mbrs, pi_indirect_handle_t* grp_handle) {
  auto* fetch = static_cast<ActProfFetch*>(res);
  if (fetch->groupsBroken) return PI_STATUS_BUFFER_ERROR;
  if (fetch->idx_groups >= fetch->num_groups) return PI_STATUS_OUT_OF_BOUND_IDX;
  FetchReader reader(fetch->entries_groups, fetch->entries_groups_size, fetch->curr_groups);
  fetch->groupsBroken = !readGroup(reader, *fetch, mbr_handles, num_mbrs, grp_handle);
  if (fetch->groupsBroken) return PI_STATUS_BUFFER_ERROR;
  fetch->curr_groups = reader.offset();
  ++fetch->idx_groups;
  return PI_STATUS_SUCCESS;
}
