// Carries out one Write.
#include "PI/frontend/WriteRun.h"

#include <algorithm>
#include <cstring>

#include "PI/frontend/KeyCodec.h"
#include "PI/frontend/Permission.h"
#include "PI/frontend/Refusal.h"
#include "PI/frontend/StatusText.h"
#include "PI/int/pi_int.h"
#include "PI/pi.h"
#include "PI/pi_extensions.h"
#include "PI/pi_tables.h"
#include "PI/target/pi_pending_imp.h"

namespace pi::fe::proto {

using p4::v1::Update;

namespace {

constexpr int kBatchUpdateFailed = 40;  // the target writes the error into the status vector

// The store learns of the end of the Write however it comes about.
class WriteScope {
 public:
  WriteScope(EntryStore& store, std::shared_ptr<WriteLog> log) : store_(store) {
    store_.writeBegin(std::move(log));
  }
  ~WriteScope() { store_.writeEnd(); }
  WriteScope(const WriteScope&) = delete;
  WriteScope& operator=(const WriteScope&) = delete;

 private:
  EntryStore& store_;
};

pi_match_key_t matchKey(const TargetSession& session, Entry* entry) {
  const EntryKey key = entry->key();
  return {session.p4info, key.tableId, key.priority, key.bytes.size(),
          reinterpret_cast<char*>(entry->keyData())};
}

}  // namespace

google::rpc::Status WriteRun::run(const p4::v1::WriteRequest& request) {
  operations_.resize(request.updates_size());
  log_ = std::make_shared<WriteLog>(request.updates_size());
  doCheck(request);
  if (!firstBatch_.empty()) {
    const WriteScope scope(store_, log_);
    doRunBatches();
  }
  if (errors_.empty()) return okStatus();
  return itemisedStatus(&errors_, "updates");
}

void WriteRun::doCheck(const p4::v1::WriteRequest& request) {
  firstBatch_.reserve(operations_.size());
  for (uint32_t offset = 0; offset < operations_.size(); ++offset) {
    try {
      operations_[offset].update = checkedUpdate(index_, request.updates(offset));
      doChain(offset);
    } catch (const Refusal& refusal) {
      doFail(offset, refusal.code(), refusal.message());
    }
  }
}

void WriteRun::doChain(uint32_t offset) {
  Operation& operation = operations_[offset];
  const auto [found, isNew] = log_->touched().try_emplace(operation.update.slot);
  WriteLog::Touched& touched = found->second;
  operation.touched = &touched;
  if (isNew) {
    firstBatch_.push_back(offset);
  } else {
    operations_[touched.lastUpdate].next = offset;
  }
  touched.lastUpdate = offset;
}

void WriteRun::doRunBatches() {
  std::vector<uint32_t> batch = std::move(firstBatch_);
  while (!batch.empty()) {
    doRunBatch(batch);
    std::vector<uint32_t> following;
    for (const uint32_t offset : batch) {
      if (operations_[offset].next != kNone) following.push_back(operations_[offset].next);
    }
    std::sort(following.begin(), following.end());
    batch = std::move(following);
  }
}

void WriteRun::doRunBatch(const std::vector<uint32_t>& batch) {
  StatusVector statuses;
  statuses.reserve(batch.size());
  for (const uint32_t offset : batch) {
    try {
      maybeRunUpdate(offset, &statuses);
    } catch (const Refusal& refusal) {
      doFail(offset, refusal.code(), refusal.message());
    }
  }
  if (!batchOpen_) return;  // every update was refused before the target heard of it
  batchOpen_ = false;
  pi_batch_current_clear();
  pi_batch_end(session_.handle, true);
  _pi_update_pending_status(&statuses);
  doRecordOutcome(batch, statuses);
}

void WriteRun::maybeRunUpdate(uint32_t offset, StatusVector* statuses) {
  Operation& operation = operations_[offset];
  // An earlier batch of this Write may have timed out; one that has begun runs to its end.
  if (!batchOpen_) requireWritePermission();
  requireState(&operation);
  if (!batchOpen_) {
    const pi_status_t begun = pi_batch_begin(session_.handle);
    if (begun != PI_STATUS_SUCCESS) {
      refuse(code::internal, text(operation), ": the target began no batch: status ", begun);
    }
    batchOpen_ = true;
  }
  const std::string_view metadata = operation.update.slot.entry->metadata();
  pi_batch_current_set(offset, 0, operation.update.slot.entry->controllerMetadata, metadata.data(),
                       metadata.size());
  const pi_status_t status =
      operation.update.type == Update::DELETE ? deleteStatus(operation) : addStatus(&operation);
  auto& [position, error] = statuses->emplace_back();
  position = offset;
  operation.pending = true;
  if (status == PI_STATUS_SUCCESS || static_cast<int>(status) == kBatchUpdateFailed) {
    error.set_canonical_code(code::deadlineExceeded);
    return;
  }
  const bool isUnimplemented = status == PI_STATUS_NOT_IMPLEMENTED_BY_TARGET;
  error.set_canonical_code(isUnimplemented ? code::unimplemented : code::internal);
  error.set_message(absl::StrCat("the target refused it with status ", status));
}

void WriteRun::requireState(Operation* operation) {
  const EntrySlot& slot = operation->update.slot;
  const Entry* committed = store_.committed({slot.entry->key(), slot.hash});
  const Update::Type type = operation->update.type;
  if (type == Update::INSERT && committed != nullptr) {
    refuse(code::alreadyExists, text(*operation), ": there is such an entry; use MODIFY");
  }
  if (type != Update::INSERT && committed == nullptr) {
    refuse(code::notFound, text(*operation), ": there is no such entry");
  }
  if (type == Update::MODIFY && operation->update.action == nullptr) {
    doKeepAction(operation, *committed);
  }
}

// The same entry once more, with the action that stands now.
void WriteRun::doKeepAction(Operation* operation, const Entry& committed) {
  EntrySlot& slot = operation->update.slot;
  const EntryKey key = slot.entry->key();
  const std::string_view metadata = slot.entry->metadata();
  EntryPtr kept =
      Entry::make(key.tableId, key.bytes.size(), committed.actionSize(), metadata.size());
  kept->priority = key.priority;
  kept->controllerMetadata = slot.entry->controllerMetadata;
  kept->actionId = committed.actionId;
  std::memcpy(kept->keyData(), key.bytes.data(), key.bytes.size());
  std::memcpy(kept->actionData(), committed.actionData(), committed.actionSize());
  std::memcpy(kept->metadataData(), metadata.data(), metadata.size());
  slot.entry = std::move(kept);
}

pi_status_t WriteRun::addStatus(Operation* operation) {
  Entry* entry = operation->update.slot.entry.get();
  const pi_match_key_t key = matchKey(session_, entry);
  pi_action_data_t action{session_.p4info, entry->actionId, entry->actionSize(),
                          reinterpret_cast<char*>(entry->actionData())};
  pi_table_entry_t added{};
  added.entry_type = PI_ACTION_ENTRY_TYPE_DATA;
  added.entry.action_data = &action;
  const int overwrite = operation->update.type == Update::MODIFY ? 1 : 0;
  return pi_table_entry_add(session_.handle, {session_.deviceId, 0xffff}, entry->tableId, &key,
                            &added, overwrite, &entry->handle);
}

pi_status_t WriteRun::deleteStatus(const Operation& operation) {
  Entry* entry = operation.update.slot.entry.get();
  const pi_match_key_t key = matchKey(session_, entry);
  return pi_table_entry_delete_wkey(session_.handle, session_.deviceId, entry->tableId, &key);
}

void WriteRun::doRecordOutcome(const std::vector<uint32_t>& batch, const StatusVector& failures) {
  for (const auto& [offset, error] : failures) {
    if (error.canonical_code() == code::ok || offset >= operations_.size()) continue;
    Operation& operation = operations_[offset];
    if (!operation.pending) continue;
    operation.pending = false;
    const bool timedOut = error.canonical_code() == code::deadlineExceeded;
    const std::string& why = error.message();
    doFail(offset, error.canonical_code(),
           absl::StrCat(text(operation), ": ",
                        timedOut && why.empty()
                            ? "the forwarding plane did not confirm it in time; it was undone"
                            : why));
  }
  std::vector<Change> changes;
  changes.reserve(batch.size());
  for (const uint32_t offset : batch) {
    Operation& operation = operations_[offset];
    if (!operation.pending) continue;
    operation.pending = false;
    changes.push_back({std::move(operation.update.slot), operation.update.type == Update::DELETE,
                       operation.touched});
  }
  store_.commit(changes);
}

void WriteRun::doFail(uint32_t offset, int code, const std::string& message) {
  if (errors_.empty()) errors_.resize(operations_.size());
  errors_[offset].set_canonical_code(code);
  errors_[offset].set_message(message);
}

std::string WriteRun::text(const Operation& operation) const {
  const Entry& entry = *operation.update.slot.entry;
  return keyText(*operation.update.table, entry.keyData(), entry.priority);
}

}  // namespace pi::fe::proto
