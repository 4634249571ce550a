#include "tests/PI/core/FakeTarget.h"

#include <algorithm>

#include "PI/target/pi_act_prof_imp.h"
#include "PI/target/pi_counter_imp.h"
#include "PI/target/pi_imp.h"
#include "PI/target/pi_meter_imp.h"
#include "PI/target/pi_tables_imp.h"

FakeTarget& TheFakeTarget() {
  static FakeTarget target;
  return target;
}

namespace {

pi_status_t called(const std::string& call) {
  TheFakeTarget().calls.push_back(call);
  return PI_STATUS_SUCCESS;
}

std::string of(pi_dev_id_t id) { return " " + std::to_string(id); }

// An array of the exact size, so that a sanitizer sees every byte read beyond it.
char* copied(const std::string& bytes) {
  char* const copy = new char[bytes.size()];
  std::copy(bytes.begin(), bytes.end(), copy);
  return copy;
}

}  // namespace

#define NEVER_CALLED(name, ...) \
  pi_status_t name(__VA_ARGS__) { return PI_STATUS_NOT_IMPLEMENTED_BY_TARGET; }

pi_status_t _pi_init(void*) { return called("init"); }
pi_status_t _pi_assign_device(pi_dev_id_t id, const pi_p4info_t*, pi_assign_extra_t* extra) {
  called("assign" + of(id) + (extra->end_of_extras ? "" : " with extras"));
  return TheFakeTarget().assignStatus;
}
pi_status_t _pi_update_device_start(pi_dev_id_t id, const pi_p4info_t*, const char*, size_t) {
  return called("update" + of(id));
}
pi_status_t _pi_update_device_end(pi_dev_id_t id) { return called("updated" + of(id)); }
pi_status_t _pi_remove_device(pi_dev_id_t id) { return called("remove" + of(id)); }
pi_status_t _pi_destroy() {
  called("destroy");
  return pi_remove_device(TheFakeTarget().ownDevice);
}
pi_status_t _pi_session_init(pi_session_handle_t*) { return called("session"); }
pi_status_t _pi_session_cleanup(pi_session_handle_t) { return called("session end"); }
pi_status_t _pi_batch_begin(pi_session_handle_t) { return called("batch"); }
pi_status_t _pi_batch_end(pi_session_handle_t, bool) { return called("batch end"); }
pi_status_t _pi_packetout_send(pi_dev_id_t id, const char*, size_t) {
  return called("packet out" + of(id));
}

NEVER_CALLED(_pi_table_entry_add, pi_session_handle_t, pi_dev_tgt_t, pi_p4_id_t,
             const pi_match_key_t*, const pi_table_entry_t*, int, pi_entry_handle_t*)
NEVER_CALLED(_pi_table_entry_delete, pi_session_handle_t, pi_dev_id_t, pi_p4_id_t,
             pi_entry_handle_t)
NEVER_CALLED(_pi_table_entry_delete_wkey, pi_session_handle_t, pi_dev_id_t, pi_p4_id_t,
             const pi_match_key_t*)
NEVER_CALLED(_pi_table_entry_modify, pi_session_handle_t, pi_dev_id_t, pi_p4_id_t,
             pi_entry_handle_t, const pi_table_entry_t*)
NEVER_CALLED(_pi_table_default_action_set, pi_session_handle_t, pi_dev_tgt_t, pi_p4_id_t,
             const pi_table_entry_t*)
NEVER_CALLED(_pi_table_default_action_reset, pi_session_handle_t, pi_dev_tgt_t, pi_p4_id_t)
NEVER_CALLED(_pi_table_default_action_get, pi_session_handle_t, pi_dev_id_t, pi_p4_id_t,
             pi_table_entry_t*)
NEVER_CALLED(_pi_table_default_action_done, pi_session_handle_t, pi_table_entry_t*)

void _pi_table_entries_coming(pi_dev_id_t, const pi_entry_handle_t*, size_t) {}
void _pi_burst_begin(pi_dev_id_t) {}
void _pi_burst_end(pi_dev_id_t) {}

pi_status_t _pi_table_entries_fetch(pi_session_handle_t, pi_dev_id_t, pi_p4_id_t,
                                    pi_table_fetch_res_t* res) {
  const FakeTarget& target = TheFakeTarget();
  if (target.fetchStatus != PI_STATUS_SUCCESS) return target.fetchStatus;
  res->num_entries = target.entryCount;
  res->mkey_nbytes = target.keyBytes;
  res->entries_size = target.entries.size();
  res->entries = copied(target.entries);
  return called("fetch");
}
pi_status_t _pi_table_entries_fetch_done(pi_session_handle_t, pi_table_fetch_res_t* res) {
  delete[] res->entries;
  return called("fetch done");
}

NEVER_CALLED(_pi_act_prof_mbr_create, pi_session_handle_t, pi_dev_tgt_t, pi_p4_id_t,
             const pi_action_data_t*, pi_indirect_handle_t*)
NEVER_CALLED(_pi_act_prof_mbr_delete, pi_session_handle_t, pi_dev_id_t, pi_p4_id_t,
             pi_indirect_handle_t)
NEVER_CALLED(_pi_act_prof_mbr_modify, pi_session_handle_t, pi_dev_id_t, pi_p4_id_t,
             pi_indirect_handle_t, const pi_action_data_t*)
NEVER_CALLED(_pi_act_prof_grp_create, pi_session_handle_t, pi_dev_tgt_t, pi_p4_id_t, size_t,
             pi_indirect_handle_t*)
NEVER_CALLED(_pi_act_prof_grp_delete, pi_session_handle_t, pi_dev_id_t, pi_p4_id_t,
             pi_indirect_handle_t)
NEVER_CALLED(_pi_act_prof_grp_add_mbr, pi_session_handle_t, pi_dev_id_t, pi_p4_id_t,
             pi_indirect_handle_t, pi_indirect_handle_t)
NEVER_CALLED(_pi_act_prof_grp_remove_mbr, pi_session_handle_t, pi_dev_id_t, pi_p4_id_t,
             pi_indirect_handle_t, pi_indirect_handle_t)
NEVER_CALLED(_pi_act_prof_grp_metadata_set, pi_session_handle_t, pi_dev_id_t, pi_p4_id_t,
             pi_indirect_handle_t)
pi_status_t _pi_act_prof_entries_fetch(pi_session_handle_t, pi_dev_id_t, pi_p4_id_t,
                                       pi_act_prof_fetch_res_t* res) {
  const FakeTarget& target = TheFakeTarget();
  res->num_members = target.memberCount;
  res->entries_members_size = target.members.size();
  res->entries_members = copied(target.members);
  res->num_groups = target.groupCount;
  res->entries_groups_size = target.groups.size();
  res->entries_groups = copied(target.groups);
  res->num_cumulated_mbr_handles = target.memberHandles.size();
  res->mbr_handles = new pi_indirect_handle_t[target.memberHandles.size()];
  std::copy(target.memberHandles.begin(), target.memberHandles.end(), res->mbr_handles);
  return called("profile fetch");
}
pi_status_t _pi_act_prof_entries_fetch_done(pi_session_handle_t, pi_act_prof_fetch_res_t* res) {
  delete[] res->entries_members;
  delete[] res->entries_groups;
  delete[] res->mbr_handles;
  return called("profile fetch done");
}
