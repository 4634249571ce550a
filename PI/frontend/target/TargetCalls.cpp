// The target calls of one update.
#include "PI/frontend/target/TargetCalls.h"

#include <array>

#include "PI/frontend/store/ProfileObjects.h"
#include "PI/int/pi_int.h"
#include "PI/pi_counter.h"
#include "PI/pi_extensions.h"
#include "PI/pi_meter.h"

namespace pi::fe::proto {

namespace {

pi_match_key_t matchKey(const TargetSession& session, Entry* entry) {
  const EntryKey key = entry->key();
  return {session.p4info, key.tableId, key.priority, key.bytes.size(),
          reinterpret_cast<char*>(entry->keyData())};
}

// The interface takes bytes that are not const; targets only read them.
pi_action_data_t actionData(const TargetSession& session, const ActionBytes& action) {
  return {session.p4info, action.actionId, action.data.size(),
          const_cast<char*>(action.data.data())};
}

pi_meter_unit_t meterUnit(DirectMeterPlan::Unit unit) {
  switch (unit) {
    case DirectMeterPlan::Unit::bytes:
      return PI_METER_UNIT_BYTES;
    case DirectMeterPlan::Unit::packets:
      return PI_METER_UNIT_PACKETS;
    default:
      return PI_METER_UNIT_DEFAULT;
  }
}

uint64_t indirectHandle(const Entry& entry) {
  return entry.kind == EntryKind::actionSet ? hiddenHandles(entry).group : reference(entry).handle;
}

// A pi_table_entry_t with all that it points to.
class PiEntry {
 public:
  PiEntry(const TargetSession& session, const TablePlan& table, const Entry& entry,
          const std::optional<Counts>& counts) {
    if (entry.kind == EntryKind::action) {
      action_ = actionData(session, actionBytes(entry));
      entry_.entry_type = PI_ACTION_ENTRY_TYPE_DATA;
      entry_.entry.action_data = &action_;
    } else {
      entry_.entry_type = PI_ACTION_ENTRY_TYPE_INDIRECT;
      entry_.entry.indirect_handle = indirectHandle(entry);
    }
    const std::optional<MeterSetting> meter = table.meter ? entry.meter() : std::nullopt;
    if (meter) meterIs(*table.meter, *meter);
    if (counts) countsAre(table.counter->id, *counts);
  }
  PiEntry(const PiEntry&) = delete;
  PiEntry& operator=(const PiEntry&) = delete;
  const pi_table_entry_t* get() const { return &entry_; }

 private:
  void meterIs(const DirectMeterPlan& plan, const MeterSetting& setting) {
    spec_ = {setting.cir,    setting.cburst,       setting.pir,
             setting.pburst, meterUnit(plan.unit), PI_METER_TYPE_DEFAULT};
    resourceIs(plan.id, &spec_);
  }

  void countsAre(uint32_t counterId, const Counts& counts) {
    counts_ = {PI_COUNTER_UNIT_PACKETS | PI_COUNTER_UNIT_BYTES, counts.bytes, counts.packets};
    resourceIs(counterId, &counts_);
  }

  void resourceIs(uint32_t id, void* config) {
    configs_[resources_.num_configs++] = {id, config};
    resources_.configs = configs_.data();
    entry_.direct_res_config = &resources_;
  }

  pi_table_entry_t entry_{};
  // The parts that entry_ points to; the other parts are never set.
  pi_action_data_t action_;
  pi_meter_spec_t spec_;
  pi_counter_data_t counts_;
  std::array<pi_direct_res_config_one_t, 2> configs_;
  pi_direct_res_config_t resources_{};
};

}  // namespace

ActionBytes actionBytes(const Entry& entry) {
  return {entry.actionId, {reinterpret_cast<const char*>(entry.actionData()), entry.actionSize()}};
}

void TargetCalls::contextIs(uint32_t controllerId, uint64_t controllerMetadata,
                            std::string_view bytes) {
  controllerId_ = controllerId;
  controllerMetadata_ = controllerMetadata;
  bytes_ = bytes;
}

template <typename Call>
void TargetCalls::call(Call call) {
  if (status_ != PI_STATUS_SUCCESS) return;
  pi_batch_current_set(offset_, controllerId_, controllerMetadata_, bytes_.data(), bytes_.size());
  anyMade_ = true;
  status_ = static_cast<int>(call());
}

void TargetCalls::entryAdd(const TablePlan& table, Entry* entry, bool overwrite,
                           const std::optional<Counts>& counts) {
  call([&] {
    const pi_match_key_t key = matchKey(session_, entry);
    const PiEntry added(session_, table, *entry, counts);
    return pi_table_entry_add(session_.handle, target(), table.id, &key, added.get(),
                              overwrite ? 1 : 0, &entry->handle);
  });
}

void TargetCalls::entryDelete(Entry* entry) {
  call([&] {
    const pi_match_key_t key = matchKey(session_, entry);
    return pi_table_entry_delete_wkey(session_.handle, session_.deviceId, entry->tableId, &key);
  });
}

void TargetCalls::rowChange(const TablePlan& table, const Change& change) {
  Entry* row = change.slot.entry.get();
  if (change.isDelete) {
    entryDelete(row);
  } else {
    entryAdd(table, row, true);
  }
}

uint64_t TargetCalls::memberCreate(uint32_t profileId, const ActionBytes& action) {
  pi_indirect_handle_t handle = 0;
  call([&] {
    const pi_action_data_t data = actionData(session_, action);
    return pi_act_prof_mbr_create(session_.handle, target(), profileId, &data, &handle);
  });
  return handle;
}

void TargetCalls::memberModify(uint32_t profileId, uint64_t member, const ActionBytes& action) {
  call([&] {
    const pi_action_data_t data = actionData(session_, action);
    return pi_act_prof_mbr_modify(session_.handle, session_.deviceId, profileId, member, &data);
  });
}

void TargetCalls::memberDelete(uint32_t profileId, uint64_t member) {
  call([&] {
    return pi_act_prof_mbr_delete(session_.handle, session_.deviceId, profileId, member);
  });
}

uint64_t TargetCalls::groupCreate(uint32_t profileId, size_t maxSize) {
  pi_indirect_handle_t handle = 0;
  call([&] {
    return pi_act_prof_grp_create(session_.handle, target(), profileId, maxSize, &handle);
  });
  return handle;
}

void TargetCalls::groupDelete(uint32_t profileId, uint64_t group) {
  call(
      [&] { return pi_act_prof_grp_delete(session_.handle, session_.deviceId, profileId, group); });
}

void TargetCalls::groupMemberAdd(uint32_t profileId, uint64_t group, uint64_t member) {
  call([&] {
    return pi_act_prof_grp_add_mbr(session_.handle, session_.deviceId, profileId, group, member);
  });
}

void TargetCalls::groupMemberRemove(uint32_t profileId, uint64_t group, uint64_t member) {
  call([&] {
    return pi_act_prof_grp_remove_mbr(session_.handle, session_.deviceId, profileId, group, member);
  });
}

void TargetCalls::groupBytesSet(uint32_t profileId, uint64_t group) {
  call([&] {
    return pi_act_prof_grp_metadata_set(session_.handle, session_.deviceId, profileId, group);
  });
}

}  // namespace pi::fe::proto
