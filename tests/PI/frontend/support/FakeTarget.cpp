// A PI target whose outcomes a test decides.
#include "tests/PI/frontend/support/FakeTarget.h"

#include <algorithm>
#include <cstring>
#include <thread>
#include <utility>

#include "PI/frontends/proto/translation_tables.h"
#include "PI/int/pi_int.h"
#include "PI/pi_extensions.h"
#include "PI/target/pi_act_prof_imp.h"
#include "PI/target/pi_counter_imp.h"
#include "PI/target/pi_extensions_imp.h"
#include "PI/target/pi_imp.h"
#include "PI/target/pi_pending_imp.h"
#include "PI/target/pi_tables_imp.h"
#include "p4/v1/p4runtime.pb.h"

namespace {

FakeTarget* theTarget = nullptr;
constexpr pi_p4_id_t kMeterId = 0x15000001;  // every row's

FakeTarget::Key keyOf(const pi_match_key_t& key) {
  return {key.table_id, key.priority, std::string(key.data, key.data_size)};
}

template <typename Number>
void append(std::string* bytes, Number number) {
  bytes->append(reinterpret_cast<const char*>(&number), sizeof(number));
}

}  // namespace

FakeTarget::FakeTarget() { theTarget = this; }
FakeTarget::~FakeTarget() { theTarget = nullptr; }

void FakeTarget::failureIs(uint32_t offset, int canonicalCode, std::string message) {
  failures_[offset] = {canonicalCode, std::move(message)};
}

void FakeTarget::batchesAreHeld() {
  const std::lock_guard lock(lock_);
  holding_ = true;
}

void FakeTarget::awaitHeldBatch() {
  std::unique_lock lock(lock_);
  changed_.wait(lock, [this] { return held_; });
}

void FakeTarget::batchesAreReleased() {
  const std::lock_guard lock(lock_);
  holding_ = false;
  changed_.notify_all();
}

std::vector<pi_status_t> FakeTarget::restored(uint64_t controllerMetadata,
                                              const std::string& metadata, uint32_t kept) {
  const std::lock_guard lock(lock_);
  std::vector<pi_status_t> statuses;
  for (auto& [handle, member] : members_) {
    pi_action_data_t action{nullptr, member.actionId, member.action.size(), member.action.data()};
    pi_restore_action_profile_member_state(1, member.profileId, &action, member.controllerId,
                                           handle, nullptr, 0);
  }
  for (auto& [handle, group] : groups_) {
    pi_restore_action_profile_group_state(1, group.profileId, group.controllerId,
                                          group.members.data(), group.members.size(), handle,
                                          group.metadata.data(), group.metadata.size());
  }
  const auto handBack = [&](const Key& key, Row& row) {
    std::string bytes = key.bytes;
    const pi_match_key_t match{nullptr, key.tableId, key.priority, bytes.size(), bytes.data()};
    pi_action_data_t action{nullptr, row.actionId, row.action.size(), row.action.data()};
    pi_table_entry_t entry{};
    if (row.indirect != 0) {
      entry.entry_type = PI_ACTION_ENTRY_TYPE_INDIRECT;
      entry.entry.indirect_handle = row.indirect;
    } else {
      entry.entry_type = PI_ACTION_ENTRY_TYPE_DATA;
      entry.entry.action_data = &action;
    }
    pi_direct_res_config_one_t resource{kMeterId, row.meter ? &*row.meter : nullptr};
    const pi_direct_res_config_t resources{1, &resource};
    if (row.meter) entry.direct_res_config = &resources;
    const std::string& own = row.metadata.empty() ? metadata : row.metadata;
    statuses.push_back(pi_restore_table_entry_state(
        1, key.tableId, &match, &entry, row.handle,
        row.controllerMetadata != 0 ? row.controllerMetadata : controllerMetadata, own.data(),
        own.size()));
  };
  for (const bool areNames : {true, false}) {  // names first, since one-shot sets need them
    for (auto& [key, row] : rows_) {
      if (key.tableId == kept) continue;
      if (pi::fe::proto::is_translation_table(key.tableId) == areNames) handBack(key, row);
    }
  }
  pi_restore_done(1);
  return statuses;
}

std::vector<std::string> FakeTarget::lastCalls() const {
  std::vector<std::string> texts;
  for (const Call& call : batches_.back()) texts.push_back(call.what);
  return texts;
}

pi_status_t FakeTarget::handleBatchBegin() {
  const std::lock_guard lock(lock_);
  if (pi_batch_fate() == PI_BATCH_WHOLE_AT_ONCE && !appliesAtOnce_) {
    return PI_STATUS_NOT_IMPLEMENTED_BY_TARGET;
  }
  if (batchStatus_ != PI_STATUS_SUCCESS) return batchStatus_;
  requireThat(!std::exchange(batchOpen_, true), "two batches at once");
  undo_.clear();
  calls_.clear();
  batches_.emplace_back();
  return PI_STATUS_SUCCESS;
}

// The status of a call; the caller does its work when that is success.
pi_status_t FakeTarget::recorded(Call call) {
  call.offset = pi_batch_current_offset();
  call.controllerMetadata = pi_batch_current_controller_metadata();
  const char* data = nullptr;
  size_t size = 0;
  pi_batch_current_metadata(&data, &size);
  call.metadata.assign(data == nullptr ? "" : data, size);
  const size_t n = calls_[call.offset]++;
  const auto chosen = callStatus_.find(call.offset);
  if (batches_.empty()) batches_.emplace_back();
  batches_.back().push_back(std::move(call));
  if (chosen == callStatus_.end() || chosen->second.first != n) return PI_STATUS_SUCCESS;
  return static_cast<pi_status_t>(chosen->second.second);
}

template <typename Map>
void FakeTarget::doRemember(Map* map, const typename Map::key_type& key) {
  const auto found = map->find(key);
  std::optional<typename Map::mapped_type> former;
  if (found != map->end()) former = found->second;
  undo_[pi_batch_current_offset()].push_back([map, key, former] {
    map->erase(key);
    if (former) map->emplace(key, *former);
  });
}

void FakeTarget::doUndo(uint32_t offset) {
  auto& steps = undo_[offset];
  for (; !steps.empty(); steps.pop_back()) steps.back()();
}

bool FakeTarget::isUsed(uint64_t handle) const {
  for (const auto& [key, row] : rows_) {
    if (row.indirect == handle) return true;
  }
  for (const auto& [group, standing] : groups_) {
    if (std::count(standing.members.begin(), standing.members.end(), handle) != 0) return true;
  }
  return false;
}

bool FakeTarget::requireThat(bool sane, const std::string& fault) {
  if (!sane) faults_.push_back(fault);
  return sane;
}

void FakeTarget::handleCells(size_t first, std::span<pi_counter_data_t> counts) {
  const std::lock_guard lock(lock_);
  ++cellCalls_;
  for (pi_counter_data_t& count : counts) {
    count = {PI_COUNTER_UNIT_PACKETS | PI_COUNTER_UNIT_BYTES, 64 * first, first};
    ++first;
  }
}

pi_status_t FakeTarget::handleAdd(const pi_match_key_t& key, const pi_table_entry_t& entry,
                                  bool overwrite, uint64_t* handle) {
  const std::lock_guard lock(lock_);
  const pi_status_t status = recorded({.isOverwrite = overwrite, .key = keyOf(key)});
  if (status != PI_STATUS_SUCCESS) return status;
  Row row;
  if (entry.entry_type == PI_ACTION_ENTRY_TYPE_INDIRECT) {
    row.indirect = entry.entry.indirect_handle;
    requireThat(members_.contains(row.indirect) || groups_.contains(row.indirect),
                "an entry that points nowhere");
  } else {
    const pi_action_data_t& action = *entry.entry.action_data;
    row.actionId = action.action_id;
    row.action.assign(action.data, action.data_size);
  }
  const pi_direct_res_config_t* given = entry.direct_res_config;
  for (size_t i = 0; given != nullptr && i < given->num_configs; ++i) {
    const pi_direct_res_config_one_t& one = given->configs[i];
    if (one.res_id == kMeterId) {
      row.meter = *static_cast<const pi_meter_spec_t*>(one.config);
    } else {
      row.counts = *static_cast<const pi_counter_data_t*>(one.config);
    }
  }
  row.controllerMetadata = batches_.back().back().controllerMetadata;
  row.metadata = batches_.back().back().metadata;
  doRemember(&rows_, keyOf(key));
  Row& standing = rows_[keyOf(key)];
  row.handle = *handle = standing.handle != 0 ? standing.handle : ++lastHandle_;
  if (memoryEndsAt_ == batches_.back().back().offset) {
    standing = row;
    memoryEndsAt_.reset();
    throw std::bad_alloc();
  }
  standing = row;
  return PI_STATUS_SUCCESS;
}

pi_status_t FakeTarget::handleDelete(const pi_match_key_t& key) {
  const std::lock_guard lock(lock_);
  const pi_status_t status = recorded({.isDelete = true, .key = keyOf(key)});
  if (status != PI_STATUS_SUCCESS) return status;
  doRemember(&rows_, keyOf(key));
  rows_.erase(keyOf(key));
  return PI_STATUS_SUCCESS;
}

// The verbs: "create", "modify", "delete".
pi_status_t FakeTarget::handleMember(const char* verb, uint32_t profileId,
                                     const pi_action_data_t* action, uint64_t* handle) {
  const std::lock_guard lock(lock_);
  const bool isNew = *handle == 0;
  const uint64_t at = isNew ? lastMember_ + 1 : *handle;
  const pi_status_t status =
      recorded({.what = std::string(verb) + " member " + std::to_string(at)});
  if (status != PI_STATUS_SUCCESS) return status;
  *handle = at;
  lastMember_ = std::max(lastMember_, at);
  requireThat(isNew != members_.contains(at), "member that is not there");
  doRemember(&members_, at);
  if (action == nullptr) {
    requireThat(!isUsed(at), "delete of a member in use");
    members_.erase(at);
    return PI_STATUS_SUCCESS;
  }
  members_[at] = {profileId, pi_batch_current_controller_id(), action->action_id,
                  std::string(action->data, action->data_size)};
  return PI_STATUS_SUCCESS;
}

// The verbs: "create", "delete", "add", "remove", "describe".
pi_status_t FakeTarget::handleGroup(const char* verb, uint32_t profileId, uint64_t member,
                                    uint64_t* handle) {
  const std::lock_guard lock(lock_);
  const bool isNew = *handle == 0;
  const uint64_t at = isNew ? lastGroup_ + 1 : *handle;
  const std::string what(verb);
  const std::string number = std::to_string(at & 0xffffffff);
  const pi_status_t status =
      recorded({.what = member != 0 ? what + " " + std::to_string(member) + " to " + number
                                    : what + " group " + number});
  if (status != PI_STATUS_SUCCESS) return status;
  *handle = at;
  lastGroup_ = std::max(lastGroup_, at);
  requireThat(isNew != groups_.contains(at), "group that is not there");
  doRemember(&groups_, at);
  if (what == "delete") {
    requireThat(!isUsed(at), "delete of a group in use");
    groups_.erase(at);
    return PI_STATUS_SUCCESS;
  }
  Group& group = groups_[at];
  if (isNew) group = {profileId, pi_batch_current_controller_id(), {}, {}};
  group.metadata = batches_.back().back().metadata;
  if (member == 0) return PI_STATUS_SUCCESS;
  const auto found = std::find(group.members.begin(), group.members.end(), member);
  if (what == "add") {
    requireThat(members_.contains(member), "add of a member that is not there");
    group.members.push_back(member);
    requireThat(group.members.size() <= 2048, "group too large");
  } else if (requireThat(found != group.members.end(), "removal of what is not in the group")) {
    group.members.erase(found);
  }
  return PI_STATUS_SUCCESS;
}

pi_status_t FakeTarget::handleCount(uint64_t handle, pi_counter_data_t* data) {
  const std::lock_guard lock(lock_);
  if (const auto call = std::exchange(onCount_, nullptr)) call();
  *data = {PI_COUNTER_UNIT_PACKETS | PI_COUNTER_UNIT_BYTES, 0, 0};
  if (counts_.contains(handle)) *data = counts_[handle];
  return counterStatus_;
}

pi_status_t FakeTarget::handleCounts(std::span<const uint64_t> handles, pi_counter_data_t* data) {
  const std::lock_guard lock(lock_);
  ++countCalls_;
  for (const uint64_t handle : handles) {
    const pi_status_t status = handleCount(handle, data++);
    if (status != PI_STATUS_SUCCESS) return status;
  }
  return PI_STATUS_SUCCESS;
}

pi_status_t FakeTarget::handleFetch(uint32_t tableId, pi_table_fetch_res_t* result) {
  const std::lock_guard lock(lock_);
  if (fetchStatus_ != PI_STATUS_SUCCESS) return fetchStatus_;
  std::string bytes;
  result->num_entries = 0;
  for (const auto& [key, row] : rows_) {
    if (key.tableId != tableId) continue;
    ++result->num_entries;
    result->mkey_nbytes = key.bytes.size();
    append(&bytes, row.handle);
    append(&bytes, key.priority);
    bytes += key.bytes;
    if (row.indirect != 0) {
      append(&bytes, static_cast<uint32_t>(PI_ACTION_ENTRY_TYPE_INDIRECT));
      append(&bytes, row.indirect);
    } else {
      append(&bytes, static_cast<uint32_t>(PI_ACTION_ENTRY_TYPE_DATA));
      append(&bytes, row.actionId);
      append(&bytes, static_cast<uint32_t>(row.action.size()));
      bytes += row.action;
    }
    append(&bytes, uint64_t{0});  // no properties, no direct resources
  }
  result->entries_size = bytes.size();
  result->entries = new char[bytes.size()];
  std::memcpy(result->entries, bytes.data(), bytes.size());
  return PI_STATUS_SUCCESS;
}

pi_status_t FakeTarget::punted(const std::string& packet) {
  const std::lock_guard lock(lock_);
  return pi_packetin_receive(1, packet.data(), packet.size());
}

pi_status_t FakeTarget::handleDeviceCall() {
  const std::lock_guard lock(lock_);
  if (onDeviceCall_) onDeviceCall_();
  return PI_STATUS_SUCCESS;
}

pi_status_t FakeTarget::handlePacketOut(const char* packet, size_t size) {
  const std::lock_guard lock(lock_);
  if (packetStatus_ == PI_STATUS_SUCCESS) sent_.emplace_back(packet, size);
  return packetStatus_;
}

void FakeTarget::handleWholeOutcome(Statuses* statuses) {
  outcome({}, {});
  const bool isSound = std::ranges::all_of(*statuses, [this](const auto& status) {
    return status.second.canonical_code() == 4 && !failures_.contains(status.first);
  });
  if (isSound && !pi_batch_failed()) return statuses->clear();
  for (auto undone = undo_.rbegin(); undone != undo_.rend(); ++undone) doUndo(undone->first);
  for (auto& [offset, error] : *statuses) {
    const auto failure = failures_.find(offset);
    if (failure != failures_.end()) {
      error.set_canonical_code(failure->second.canonicalCode);
      error.set_message(failure->second.message);
    } else if (error.canonical_code() == 4) {
      error.set_canonical_code(10);
    }
  }
}

std::map<uint32_t, std::pair<int, std::string>> FakeTarget::outcome(
    const std::vector<uint32_t>& pending, const std::vector<uint32_t>& refused) {
  std::this_thread::yield();  // as while it waits
  std::unique_lock lock(lock_);
  held_ = holding_;
  changed_.notify_all();
  changed_.wait(lock, [this] { return !holding_; });
  held_ = false;
  batchOpen_ = false;
  std::map<uint32_t, std::pair<int, std::string>> result;
  for (const uint32_t offset : refused) doUndo(offset);
  for (const uint32_t offset : pending) {
    const auto failure = failures_.find(offset);
    if (failure == failures_.end()) continue;
    result[offset] = {failure->second.canonicalCode, failure->second.message};
    doUndo(offset);
  }
  if (onSettled_) std::exchange(onSettled_, nullptr)();
  return result;
}

pi_status_t _pi_init(void*) { return PI_STATUS_SUCCESS; }
pi_status_t _pi_assign_device(pi_dev_id_t, const pi_p4info_t*, pi_assign_extra_t*) {
  return theTarget->handleDeviceCall();
}
pi_status_t _pi_update_device_start(pi_dev_id_t, const pi_p4info_t*, const char*, size_t) {
  return theTarget->updateDeviceStatus();
}
pi_status_t _pi_update_device_end(pi_dev_id_t) { return PI_STATUS_SUCCESS; }
pi_status_t _pi_remove_device(pi_dev_id_t) { return theTarget->handleDeviceCall(); }
pi_status_t _pi_destroy() { return PI_STATUS_SUCCESS; }
pi_status_t _pi_session_init(pi_session_handle_t* handle) {
  *handle = 0;
  return PI_STATUS_SUCCESS;
}
pi_status_t _pi_session_cleanup(pi_session_handle_t) { return PI_STATUS_SUCCESS; }
pi_status_t _pi_batch_begin(pi_session_handle_t) { return theTarget->handleBatchBegin(); }
pi_status_t _pi_batch_end(pi_session_handle_t, bool) { return PI_STATUS_SUCCESS; }
pi_status_t _pi_packetout_send(pi_dev_id_t, const char* packet, size_t size) {
  return theTarget->handlePacketOut(packet, size);
}

pi_status_t _pi_table_entry_add(pi_session_handle_t, pi_dev_tgt_t, pi_p4_id_t,
                                const pi_match_key_t* key, const pi_table_entry_t* entry,
                                int overwrite, pi_entry_handle_t* handle) {
  return theTarget->handleAdd(*key, *entry, overwrite != 0, handle);
}
pi_status_t _pi_table_entry_delete_wkey(pi_session_handle_t, pi_dev_id_t, pi_p4_id_t,
                                        const pi_match_key_t* key) {
  return theTarget->handleDelete(*key);
}
pi_status_t _pi_table_entries_fetch(pi_session_handle_t, pi_dev_id_t, pi_p4_id_t tableId,
                                    pi_table_fetch_res_t* result) {
  return theTarget->handleFetch(tableId, result);
}
pi_status_t _pi_table_entries_fetch_done(pi_session_handle_t, pi_table_fetch_res_t* result) {
  delete[] result->entries;
  return PI_STATUS_SUCCESS;
}

pi_status_t _pi_act_prof_mbr_create(pi_session_handle_t, pi_dev_tgt_t, pi_p4_id_t profileId,
                                    const pi_action_data_t* action, pi_indirect_handle_t* member) {
  *member = 0;
  return theTarget->handleMember("create", profileId, action, member);
}
pi_status_t _pi_act_prof_mbr_delete(pi_session_handle_t, pi_dev_id_t, pi_p4_id_t profileId,
                                    pi_indirect_handle_t member) {
  return theTarget->handleMember("delete", profileId, nullptr, &member);
}
pi_status_t _pi_act_prof_mbr_modify(pi_session_handle_t, pi_dev_id_t, pi_p4_id_t profileId,
                                    pi_indirect_handle_t member, const pi_action_data_t* action) {
  return theTarget->handleMember("modify", profileId, action, &member);
}
pi_status_t _pi_act_prof_grp_create(pi_session_handle_t, pi_dev_tgt_t, pi_p4_id_t profileId, size_t,
                                    pi_indirect_handle_t* group) {
  *group = 0;
  return theTarget->handleGroup("create", profileId, 0, group);
}
pi_status_t _pi_act_prof_grp_delete(pi_session_handle_t, pi_dev_id_t, pi_p4_id_t profileId,
                                    pi_indirect_handle_t group) {
  return theTarget->handleGroup("delete", profileId, 0, &group);
}
pi_status_t _pi_act_prof_grp_add_mbr(pi_session_handle_t, pi_dev_id_t, pi_p4_id_t profileId,
                                     pi_indirect_handle_t group, pi_indirect_handle_t member) {
  return theTarget->handleGroup("add", profileId, member, &group);
}
pi_status_t _pi_act_prof_grp_remove_mbr(pi_session_handle_t, pi_dev_id_t, pi_p4_id_t profileId,
                                        pi_indirect_handle_t group, pi_indirect_handle_t member) {
  return theTarget->handleGroup("remove", profileId, member, &group);
}
pi_status_t _pi_act_prof_grp_metadata_set(pi_session_handle_t, pi_dev_id_t, pi_p4_id_t profileId,
                                          pi_indirect_handle_t group) {
  return theTarget->handleGroup("describe", profileId, 0, &group);
}
int _pi_pipeline_push(pi_dev_id_t, int action, const char* config, size_t size,
                      pi_bytes_receiver_t say, void* cookie) {
  FakeTarget::Pushes& pushes = theTarget->pushes;
  pushes.action = action;
  pushes.config = config ? std::optional(std::string(config, size)) : std::nullopt;
  say(cookie, pushes.message.data(), pushes.message.size());
  return pushes.code;
}
void _pi_pipeline_given(pi_dev_id_t, pi_bytes_receiver_t receiver, void* cookie) {
  const std::string& given = theTarget->pushes.given;
  if (!given.empty()) receiver(cookie, given.data(), given.size());
}
void _pi_counts_wanted(pi_dev_id_t) { ++theTarget->countsWanted; }
int _pi_register_cells(pi_dev_id_t, pi_p4_id_t registerId, uint64_t first, uint32_t count,
                       pi_bytes_receiver_t receiver, void* cookie) {
  const auto& cells = theTarget->registerCells;
  if (!cells) return 0;
  const std::string bytes = cells(registerId, first, count);
  receiver(cookie, bytes.data(), bytes.size());
  return 1;
}
int _pi_last_hits(pi_dev_id_t, pi_p4_id_t, const pi_entry_handle_t* handles, size_t count,
                  uint64_t* nanoseconds, pi_bytes_receiver_t say, void* cookie) {
  FakeTarget::LastHits& hits = theTarget->lastHits;
  hits.calls.emplace_back(handles, handles + count);
  if (hits.code != 0 && hits.calls.size() > hits.toldCalls) {
    const std::string_view why = "nobody tells";
    say(cookie, why.data(), why.size());
    return hits.code;
  }
  for (size_t i = 0; i < count; ++i) {
    const auto time = hits.times.find(handles[i]);
    nanoseconds[i] = time == hits.times.end() ? PI_LAST_HIT_UNKNOWN : time->second;
  }
  return 0;
}
void _pi_abilities(const char*, size_t, pi_abilities_t* abilities) {
  if (theTarget) *abilities = theTarget->abilities();
}
int _pi_port_exists(uint32_t) { return 1; }
void _pi_counter_cells_read(pi_dev_id_t, pi_p4_id_t, size_t first, size_t count,
                            pi_counter_data_t* data) {
  theTarget->handleCells(first, {data, count});
}
void _pi_table_entries_coming(pi_dev_id_t, const pi_entry_handle_t*, size_t) {}
void _pi_burst_begin(pi_dev_id_t) {}
void _pi_burst_end(pi_dev_id_t) {}
pi_status_t _pi_counter_read_direct(pi_session_handle_t, pi_dev_tgt_t, pi_p4_id_t,
                                    pi_entry_handle_t handle, int, pi_counter_data_t* data) {
  return theTarget->handleCount(handle, data);
}
pi_status_t _pi_counters_read_direct(pi_session_handle_t, pi_dev_tgt_t, pi_p4_id_t,
                                     const pi_entry_handle_t* handles, size_t count, int,
                                     pi_counter_data_t* data) {
  return theTarget->handleCounts({handles, count}, data);
}

void _pi_update_pending_status(std::vector<std::pair<uint32_t, p4::v1::Error>>* statuses) {
  std::vector<uint32_t> pending;
  std::vector<uint32_t> refused;
  for (const auto& [offset, error] : *statuses) {
    (error.canonical_code() == 4 ? pending : refused).push_back(offset);
  }
  if (pi_batch_fate() != PI_BATCH_SINGLE) return theTarget->handleWholeOutcome(statuses);
  const auto failures = theTarget->outcome(pending, refused);
  std::erase_if(*statuses, [&](auto& status) {
    if (status.second.canonical_code() != 4) return false;
    const auto failure = failures.find(status.first);
    if (failure == failures.end()) return true;
    status.second.set_canonical_code(failure->second.first);
    status.second.set_message(failure->second.second);
    return false;
  });
}
