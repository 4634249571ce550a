// A PI target whose outcomes a test decides.
#include "tests/PI/frontend/FakeTarget.h"

#include <cstring>

#include "PI/int/pi_int.h"
#include "PI/pi_extensions.h"
#include "PI/target/pi_imp.h"
#include "PI/target/pi_pending_imp.h"
#include "PI/target/pi_tables_imp.h"
#include "p4/v1/p4runtime.pb.h"

namespace {

FakeTarget* theTarget = nullptr;

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
                                              const std::string& metadata) {
  const std::lock_guard lock(lock_);
  std::vector<pi_status_t> statuses;
  for (auto& [key, row] : rows_) {
    std::string bytes = key.bytes;
    const pi_match_key_t match{nullptr, key.tableId, key.priority, bytes.size(), bytes.data()};
    pi_action_data_t action{nullptr, row.actionId, row.action.size(), row.action.data()};
    pi_table_entry_t entry{};
    entry.entry_type = PI_ACTION_ENTRY_TYPE_DATA;
    entry.entry.action_data = &action;
    statuses.push_back(pi_restore_table_entry_state(1, key.tableId, &match, &entry, row.handle,
                                                    controllerMetadata, metadata.data(),
                                                    metadata.size()));
  }
  pi_restore_done(1);
  return statuses;
}

pi_status_t FakeTarget::handleBatchBegin() {
  const std::lock_guard lock(lock_);
  undo_.clear();
  batches_.emplace_back();
  return PI_STATUS_SUCCESS;
}

pi_status_t FakeTarget::recorded(Call call, const Row* row, uint64_t* handle) {
  call.offset = pi_batch_current_offset();
  call.controllerMetadata = pi_batch_current_controller_metadata();
  const char* data = nullptr;
  size_t size = 0;
  pi_batch_current_metadata(&data, &size);
  call.metadata.assign(data, size);
  undo_[call.offset] = {call.key, rows_[call.key]};
  if (row == nullptr) {
    rows_.erase(call.key);
  } else {
    Row& standing = rows_[call.key];
    const uint64_t standingHandle = standing.handle != 0 ? standing.handle : ++lastHandle_;
    standing = *row;
    standing.handle = *handle = standingHandle;
  }
  const auto status = callStatus_.find(call.offset);
  batches_.back().push_back(std::move(call));
  return static_cast<pi_status_t>(status == callStatus_.end() ? 0 : status->second);
}

pi_status_t FakeTarget::handleAdd(const pi_match_key_t& key, const pi_table_entry_t& entry,
                                  bool overwrite, uint64_t* handle) {
  const std::lock_guard lock(lock_);
  const pi_action_data_t& action = *entry.entry.action_data;
  const Row row{0, action.action_id, std::string(action.data, action.data_size)};
  return recorded({.isOverwrite = overwrite, .key = keyOf(key)}, &row, handle);
}

pi_status_t FakeTarget::handleDelete(const pi_match_key_t& key) {
  const std::lock_guard lock(lock_);
  return recorded({.isDelete = true, .key = keyOf(key)}, nullptr, nullptr);
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
    append(&bytes, static_cast<uint32_t>(PI_ACTION_ENTRY_TYPE_DATA));
    append(&bytes, row.actionId);
    append(&bytes, static_cast<uint32_t>(row.action.size()));
    bytes += row.action;
    append(&bytes, uint64_t{0});  // no properties, no direct resources
  }
  result->entries_size = bytes.size();
  result->entries = new char[bytes.size()];
  std::memcpy(result->entries, bytes.data(), bytes.size());
  return PI_STATUS_SUCCESS;
}

std::map<uint32_t, std::pair<int, std::string>> FakeTarget::outcome(
    const std::vector<uint32_t>& offsets) {
  std::unique_lock lock(lock_);
  held_ = holding_;
  changed_.notify_all();
  changed_.wait(lock, [this] { return !holding_; });
  held_ = false;
  std::map<uint32_t, std::pair<int, std::string>> result;
  for (const uint32_t offset : offsets) {
    const auto failure = failures_.find(offset);
    if (failure == failures_.end()) continue;
    result[offset] = {failure->second.canonicalCode, failure->second.message};
    const auto& [key, row] = undo_.at(offset);
    if (row.handle == 0) {
      rows_.erase(key);
    } else {
      rows_[key] = row;
    }
  }
  return result;
}

pi_status_t _pi_init(void*) { return PI_STATUS_SUCCESS; }
pi_status_t _pi_assign_device(pi_dev_id_t, const pi_p4info_t*, pi_assign_extra_t*) {
  return PI_STATUS_SUCCESS;
}
pi_status_t _pi_update_device_start(pi_dev_id_t, const pi_p4info_t*, const char*, size_t) {
  return theTarget->updateDeviceStatus();
}
pi_status_t _pi_update_device_end(pi_dev_id_t) { return PI_STATUS_SUCCESS; }
pi_status_t _pi_remove_device(pi_dev_id_t) { return PI_STATUS_SUCCESS; }
pi_status_t _pi_destroy() { return PI_STATUS_SUCCESS; }
pi_status_t _pi_session_init(pi_session_handle_t* handle) {
  *handle = 0;
  return PI_STATUS_SUCCESS;
}
pi_status_t _pi_session_cleanup(pi_session_handle_t) { return PI_STATUS_SUCCESS; }
pi_status_t _pi_batch_begin(pi_session_handle_t) { return theTarget->handleBatchBegin(); }
pi_status_t _pi_batch_end(pi_session_handle_t, bool) { return PI_STATUS_SUCCESS; }
pi_status_t _pi_packetout_send(pi_dev_id_t, const char*, size_t) {
  return PI_STATUS_NOT_IMPLEMENTED_BY_TARGET;
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
// The rest of the table functions: the front end never calls them.
pi_status_t _pi_table_entry_delete(pi_session_handle_t, pi_dev_id_t, pi_p4_id_t,
                                   pi_entry_handle_t) {
  return PI_STATUS_NOT_IMPLEMENTED_BY_TARGET;
}
pi_status_t _pi_table_entry_modify(pi_session_handle_t, pi_dev_id_t, pi_p4_id_t, pi_entry_handle_t,
                                   const pi_table_entry_t*) {
  return PI_STATUS_NOT_IMPLEMENTED_BY_TARGET;
}
pi_status_t _pi_table_default_action_set(pi_session_handle_t, pi_dev_tgt_t, pi_p4_id_t,
                                         const pi_table_entry_t*) {
  return PI_STATUS_NOT_IMPLEMENTED_BY_TARGET;
}
pi_status_t _pi_table_default_action_reset(pi_session_handle_t, pi_dev_tgt_t, pi_p4_id_t) {
  return PI_STATUS_NOT_IMPLEMENTED_BY_TARGET;
}
pi_status_t _pi_table_default_action_get(pi_session_handle_t, pi_dev_id_t, pi_p4_id_t,
                                         pi_table_entry_t*) {
  return PI_STATUS_NOT_IMPLEMENTED_BY_TARGET;
}
pi_status_t _pi_table_default_action_done(pi_session_handle_t, pi_table_entry_t*) {
  return PI_STATUS_NOT_IMPLEMENTED_BY_TARGET;
}

void _pi_update_pending_status(std::vector<std::pair<uint32_t, p4::v1::Error>>* statuses) {
  std::vector<uint32_t> pending;
  for (const auto& [offset, error] : *statuses) {
    if (error.canonical_code() == 4) pending.push_back(offset);
  }
  const auto failures = theTarget->outcome(pending);
  std::erase_if(*statuses, [&](auto& status) {
    if (status.second.canonical_code() != 4) return false;
    const auto failure = failures.find(status.first);
    if (failure == failures.end()) return true;
    status.second.set_canonical_code(failure->second.first);
    status.second.set_message(failure->second.second);
    return false;
  });
}
