// Hands a target's own reports to the front end of the device.
#include "PI/int/pi_frontend_hooks.h"

#include <map>
#include <mutex>
#include <shared_mutex>

#include "PI/pi_extensions.h"

namespace {

struct Frontend {
  pi_frontend_hooks_t hooks;
  void* cookie;
};

// Held shared while a hook runs, so that none runs any more once its hooks are cleared.
struct Frontends {
  std::shared_mutex mutex;  // guards ofDevice
  std::map<pi_dev_id_t, Frontend> ofDevice;
};

Frontends& TheFrontends() {
  static Frontends* const frontends = new Frontends;  // threads may outlive static destruction
  return *frontends;
}

// Calls `call(frontend)` when the device has one.
template <typename Call>
pi_status_t toFrontend(pi_dev_id_t id, Call call) {
  const std::shared_lock lock(TheFrontends().mutex);
  const auto frontend = TheFrontends().ofDevice.find(id);
  if (frontend == TheFrontends().ofDevice.end()) return PI_STATUS_DEV_NOT_ASSIGNED;
  return call(frontend->second);
}

}  // namespace

pi_status_t pi_frontend_hooks_set(pi_dev_id_t dev_id, const pi_frontend_hooks_t* hooks,
                                  void* cookie) {
  if (!hooks->restore_table_entry || !hooks->restore_action_profile_member ||
      !hooks->restore_action_profile_group || !hooks->constant_table_entry ||
      !hooks->restore_done) {
    return PI_STATUS_BUFFER_ERROR;
  }
  const std::unique_lock lock(TheFrontends().mutex);
  TheFrontends().ofDevice[dev_id] = {*hooks, cookie};
  return PI_STATUS_SUCCESS;
}

pi_status_t pi_frontend_hooks_clear(pi_dev_id_t dev_id) {
  const std::unique_lock lock(TheFrontends().mutex);
  return TheFrontends().ofDevice.erase(dev_id) ? PI_STATUS_SUCCESS : PI_STATUS_DEV_NOT_ASSIGNED;
}

pi_status_t pi_table_pending_entry_status_changed(pi_dev_id_t dev_id,
                                                  const pi_entry_handle_t* entry_handle,
                                                  uint32_t error_code) {
  return pi_table_pending_entries_status_changed(dev_id, entry_handle, 1, error_code);
}

pi_status_t pi_table_pending_entries_status_changed(pi_dev_id_t dev_id,
                                                    const pi_entry_handle_t* entry_handles,
                                                    size_t count, uint32_t error_code) {
  return toFrontend(dev_id, [&](const Frontend& frontend) {
    const auto changed = frontend.hooks.entry_status_changed;
    for (size_t i = 0; changed != nullptr && i < count; ++i) {
      changed(frontend.cookie, dev_id, entry_handles[i], error_code);
    }
    return PI_STATUS_SUCCESS;
  });
}

pi_status_t pi_digest_message(pi_dev_id_t dev_id, pi_p4_id_t digest_id, const char* data,
                              size_t size) {
  return toFrontend(dev_id, [&](const Frontend& frontend) {
    const auto message = frontend.hooks.digest_message;
    if (!message) return PI_STATUS_LEARN_NO_MATCHING_CB;
    return message(frontend.cookie, dev_id, digest_id, data, size);
  });
}

pi_status_t pi_table_entry_idle(pi_dev_id_t dev_id, pi_p4_id_t table_id,
                                const pi_match_key_t* match_key) {
  return toFrontend(dev_id, [&](const Frontend& frontend) {
    const auto idle = frontend.hooks.table_entry_idle;
    return idle ? idle(frontend.cookie, dev_id, table_id, match_key) : PI_STATUS_SUCCESS;
  });
}

pi_status_t pi_restore_expect(pi_dev_id_t dev_id, size_t table_entries) {
  return toFrontend(dev_id, [&](const Frontend& frontend) {
    const auto expect = frontend.hooks.restore_expect;
    return expect ? expect(frontend.cookie, dev_id, table_entries) : PI_STATUS_SUCCESS;
  });
}

pi_status_t pi_restore_keep(pi_dev_id_t dev_id, pi_p4_id_t* table_ids, size_t* count) {
  const pi_status_t status = toFrontend(dev_id, [&](const Frontend& frontend) {
    const auto keep = frontend.hooks.restore_keep;
    return keep ? keep(frontend.cookie, dev_id, table_ids, count)
                : PI_STATUS_NOT_IMPLEMENTED_BY_TARGET;
  });
  if (status != PI_STATUS_SUCCESS) *count = 0;
  return status;
}

pi_status_t pi_restore_table_entry_state(pi_dev_id_t dev_id, pi_p4_id_t table_id,
                                         const pi_match_key_t* match_key,
                                         const pi_table_entry_t* table_entry,
                                         pi_entry_handle_t entry_handle,
                                         uint64_t controller_metadata, const char* metadata,
                                         size_t metadata_size) {
  return toFrontend(dev_id, [&](const Frontend& frontend) {
    return frontend.hooks.restore_table_entry(frontend.cookie, dev_id, table_id, match_key,
                                              table_entry, entry_handle, controller_metadata,
                                              metadata, metadata_size);
  });
}

pi_status_t pi_restore_action_profile_member_state(pi_dev_id_t dev_id, pi_p4_id_t act_prof_id,
                                                   const pi_action_data_t* action_data,
                                                   uint32_t controller_member_id,
                                                   pi_indirect_handle_t mbr_handle,
                                                   const char* metadata, size_t metadata_size) {
  return toFrontend(dev_id, [&](const Frontend& frontend) {
    return frontend.hooks.restore_action_profile_member(frontend.cookie, dev_id, act_prof_id,
                                                        action_data, controller_member_id,
                                                        mbr_handle, metadata, metadata_size);
  });
}

pi_status_t pi_restore_action_profile_group_state(pi_dev_id_t dev_id, pi_p4_id_t act_prof_id,
                                                  uint32_t controller_group_id,
                                                  const pi_indirect_handle_t* members,
                                                  size_t num_members,
                                                  pi_indirect_handle_t grp_handle,
                                                  const char* metadata, size_t metadata_size) {
  return toFrontend(dev_id, [&](const Frontend& frontend) {
    return frontend.hooks.restore_action_profile_group(frontend.cookie, dev_id, act_prof_id,
                                                       controller_group_id, members, num_members,
                                                       grp_handle, metadata, metadata_size);
  });
}

pi_status_t pi_constant_table_entry_state(pi_dev_id_t dev_id, pi_p4_id_t table_id,
                                          const pi_match_key_t* match_key,
                                          const pi_table_entry_t* table_entry,
                                          pi_entry_handle_t entry_handle) {
  return toFrontend(dev_id, [&](const Frontend& frontend) {
    return frontend.hooks.constant_table_entry(frontend.cookie, dev_id, table_id, match_key,
                                               table_entry, entry_handle);
  });
}

pi_status_t pi_restore_done(pi_dev_id_t dev_id) {
  return toFrontend(dev_id, [&](const Frontend& frontend) {
    return frontend.hooks.restore_done(frontend.cookie, dev_id);
  });
}

pi_status_t pi_fixed_names_set(pi_dev_id_t dev_id, pi_fixed_name_t* names, size_t count) {
  return toFrontend(dev_id, [&](const Frontend& frontend) {
    if (!frontend.hooks.fixed_names) return static_cast<pi_status_t>(PI_STATUS_SUCCESS);
    return frontend.hooks.fixed_names(frontend.cookie, dev_id, names, count);
  });
}
