// Carries out Writes.
#include "PI/frontend/write/WriteRun.h"

#include "PI/core/EndProcess.h"
#include "PI/frontend/base/Permission.h"
#include "PI/frontend/base/Refusal.h"
#include "PI/frontend/base/StatusText.h"
#include "PI/frontend/check/RightsCheck.h"
#include "PI/frontend/check/TableEntryCheck.h"
#include "PI/frontend/check/UpdateCheck.h"
#include "PI/frontend/store/HeldNames.h"
#include "PI/frontend/target/TargetCalls.h"
#include "PI/frontend/write/UpdateRun.h"
#include "PI/frontends/proto/write_statistics.h"
#include "PI/pi.h"
#include "PI/target/pi_pending_imp.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <optional>

namespace pi::fe::proto {

using p4::v1::Update;

namespace {

constexpr int kBatchUpdateFailed = 40;  // the target writes the error into the status vector
constexpr size_t kLoadedTogether = 64;  // updates, whose memory is fetched at one time
constexpr size_t kMostTogether = 4096;  // updates of several Writes: each waits for all of them

// Commits the changes that the Writes have kept, however they end.
class WriteScope {
 public:
  explicit WriteScope(EntryStore& store) : store_(store) {}
  ~WriteScope() {
    core::runOrEndProcess([this] { store_.commit(); });
  }
  WriteScope(const WriteScope&) = delete;
  WriteScope& operator=(const WriteScope&) = delete;

 private:
  EntryStore& store_;
};

// Target calls of the thread that follow each other.
class Burst {
 public:
  explicit Burst(const TargetSession& session) : deviceId_(session.deviceId) {
    pi_burst_begin(deviceId_);
  }
  ~Burst() { pi_burst_end(deviceId_); }
  Burst(const Burst&) = delete;
  Burst& operator=(const Burst&) = delete;

 private:
  const pi_dev_id_t deviceId_;
};

// The table, or the profile of a member or group.
const ActionUser& userOf(const CheckedUpdate& update) {
  if (update.table != nullptr) return *update.table;
  return *update.profile;
}

bool isOfOneCall(const CheckedUpdate& update) {
  return update.profile == nullptr && update.table->entity == nullptr && !update.extras;
}

}  // namespace

CheckedWrite checkedWrite(const P4InfoIndex& index, const WriteUpdates& updates,
                          const EntityRights* rights) {
  CheckedWrite write;
  write.operations.resize(updates.count());
  WireUpdate plain;
  Update room;
  for (size_t i = 0; i < write.operations.size(); ++i) {
    const bool isRead = updates.areBytes() && readUpdate(updates.bytes(i), &plain);
    const TablePlan* const table = isRead ? tableOfPlain(index, plain) : nullptr;
    const Update* const message = table ? nullptr : &updates.message(i, &room);
    WriteOperation& operation = write.operations[i];
    try {
      if (rights && table) requireWriteRight(index, *rights, plain.tableId);
      if (rights && message) requireWriteRight(index, *rights, message->entity());
      operation.update = table ? checkedUpdate(*table, plain) : checkedUpdate(index, *message);
      operation.runs = static_cast<bool>(operation.update.slot.entry);
    } catch (const Refusal& refusal) {
      if (write.errors.empty()) write.errors.resize(write.operations.size());
      write.errors[i].set_canonical_code(refusal.code());
      write.errors[i].set_message(refusal.message());
    }
  }
  return write;
}

bool WriteRun::add(CheckedWrite& write, pi_batch_fate_t fate, google::rpc::Status* status) {
  if (!fits(write, fate)) return false;
  fate_ = fate;
  const auto first = static_cast<uint32_t>(operations_.size());
  const auto count = static_cast<uint32_t>(write.operations.size());
  order_.reserve(first + count);
  if (first == 0) {
    operations_ = std::move(write.operations);
  } else {
    std::ranges::move(write.operations, std::back_inserter(operations_));
  }
  parts_.push_back({first, count, status});
  for (uint32_t offset = first; offset < first + count; ++offset) {
    if (operations_[offset].runs && fate == PI_BATCH_SINGLE) doOrder(offset);
  }
  if (first > 0 && levels_ > 1) {
    doRemoveLast(&write);
    return false;
  }
  for (uint32_t i = 0; i < write.errors.size(); ++i) {
    const p4::v1::Error& error = write.errors[i];
    if (error.canonical_code() != code::ok)
      doFail(first + i, error.canonical_code(), error.message());
  }
  return true;
}

bool WriteRun::fits(const CheckedWrite& write, pi_batch_fate_t fate) const {
  if (parts_.empty()) return true;
  if (fate != PI_BATCH_SINGLE || fate_ != PI_BATCH_SINGLE) return false;
  return levels_ <= 1 && operations_.size() + write.operations.size() <= kMostTogether;
}

void WriteRun::doRemoveLast(CheckedWrite* write) {
  const uint32_t first = parts_.back().first;
  for (uint32_t i = 0; i < parts_.back().count; ++i) {
    write->operations[i] = std::move(operations_[first + i]);
  }
  operations_.resize(first);
  parts_.pop_back();
  levels_ = 1;
}

void WriteRun::run() {
  pi_batch_fate_set(PI_BATCH_SINGLE);
  if (levels_ != 0) doStoreNames();
  pi_batch_fate_set(fate_);
  if (fate_ != PI_BATCH_SINGLE) {
    runWhole();
  } else if (levels_ != 0) {
    const WriteScope scope(store_);
    for (const Batch& batch : batches()) doRunBatch(batch);
  }
  pi_batch_fate_set(PI_BATCH_SINGLE);
  if (levels_ != 0) doForgetNames();
  for (const Part& part : parts_) *part.status = statusOf(part);
}

// All of it is one batch of the target: later updates see earlier ones, whose outcome only counts
// in the end.
void WriteRun::runWhole() {
  TentativeEntries entries(store_, use_);
  StatusVector statuses;
  statuses.reserve(operations_.size());
  try {
    runWholeUpdates(&statuses, &entries);
  } catch (...) {
    pi_batch_failed_set(1);
    doAbandonBatch(&statuses);
    throw;
  }
  if (batchOpen_) doEndBatch(&statuses);
  doMarkFailed(statuses);
  doRecordFailures(statuses);
  if (errors_.empty()) {
    entries.commit();
    doCountNotedNames();
  } else {
    doAbortOthers();
  }
}

void WriteRun::runWholeUpdates(StatusVector* statuses, TentativeEntries* entries) {
  // Refused as a whole where nobody can do it, whatever its updates are.
  if (fate_ == PI_BATCH_WHOLE_AT_ONCE && !operations_.empty()) maybeBeginBatch(operations_.front());
  bool goesOn = errors_.empty();
  for (uint32_t offset = 0; goesOn && offset < operations_.size(); ++offset) {
    if (!operations_[offset].runs) continue;
    try {
      maybeRunWholeUpdate(offset, statuses, entries);
    } catch (const NoBatch&) {
      throw;
    } catch (const Refusal& refusal) {
      doFail(offset, refusal.code(), refusal.message());
    }
    goesOn = errors_.empty() && !operations_[offset].failed;
  }
  if (!goesOn) pi_batch_failed_set(1);
}

// Packets write registers, too, whatever tables they read.
void WriteRun::requireAtOnce(const CheckedUpdate& update) {
  const EntityPlan* entity = update.table ? update.table->entity : nullptr;
  if (!entity || entity->kind != EntityKind::registerArray) return;
  refuse(code::unimplemented, updateText(update),
         ": a register does not change at once with anything else; use ROLLBACK_ON_ERROR or "
         "CONTINUE_ON_ERROR");
}

void WriteRun::maybeRunWholeUpdate(uint32_t offset, StatusVector* statuses,
                                   TentativeEntries* entries) {
  if (fate_ == PI_BATCH_WHOLE_AT_ONCE) requireAtOnce(operations_[offset].update);
  maybeRunUpdate(offset, statuses);
  const Operation& operation = operations_[offset];
  if (!operation.pending || operation.failed) return;
  noteNames(operation.update);
  entries->enter(operation.update);
  state_.handleBatchBegin();
}

// Without a message: the culprits' need the room.
void WriteRun::doAbortOthers() {
  for (p4::v1::Error& error : errors_) {
    if (error.canonical_code() == code::ok) error.set_canonical_code(code::aborted);
  }
}

// The target knows a name before anything that uses it.
void WriteRun::doStoreNames() {
  if (index_.namedTypes().empty()) return;
  for (const Operation& operation : operations_) {
    if (operation.runs) nameWrites_.add(operation.update.names);
  }
  if (!nameWrites_.any()) return;
  const NameWrites::Failures failures = nameWrites_.doStore();
  anyBatchRun_ = true;
  if (failures.empty()) return;
  for (uint32_t offset = 0; offset < operations_.size(); ++offset) {
    Operation& operation = operations_[offset];
    const Refusal* why =
        operation.runs ? NameWrites::failureOf(failures, operation.update.names) : nullptr;
    if (why == nullptr) continue;
    operation.runs = false;
    doFail(offset, why->code(), absl::StrCat(updateText(operation.update), ": ", why->message()));
  }
}

// Names without a user go. A name whose deletion fails goes with a later Write.
void WriteRun::doForgetNames() {
  if (index_.namedTypes().empty()) return;
  for (Operation& operation : operations_) operation.update.names.releaseAll();
  goneNames_.releaseAll();
  nameWrites_.doDeleteLeaving();
}

google::rpc::Status WriteRun::statusOf(const Part& part) const {
  if (errors_.empty()) {
    writeStatistics().countUpdates(code::ok, part.count);
    return okStatus();
  }
  const auto first = errors_.begin() + part.first;
  std::vector<p4::v1::Error> errors(first, first + part.count);
  for (const p4::v1::Error& error : errors) {
    writeStatistics().countUpdates(error.canonical_code(), 1);
  }
  const bool isOk = std::ranges::all_of(
      errors, [](const p4::v1::Error& error) { return error.canonical_code() == code::ok; });
  return isOk ? okStatus() : itemisedStatus(&errors, "updates");
}

void WriteRun::doOrder(uint32_t offset) {
  Operation& operation = operations_[offset];
  operation.level = order_.level(operation.update);
  levels_ = std::max(levels_, operation.level + 1);
}

std::vector<WriteRun::Batch> WriteRun::batches() const {
  std::vector<Batch> batches(levels_);
  if (levels_ == 1) batches[0].reserve(operations_.size());
  for (uint32_t offset = 0; offset < operations_.size(); ++offset) {
    const Operation& operation = operations_[offset];
    if (operation.runs) batches[operation.level].push_back(offset);
  }
  return batches;
}

void WriteRun::doRunBatch(const Batch& batch) {
  StatusVector statuses;
  statuses.reserve(batch.size());
  state_.handleBatchBegin();
  try {
    for (size_t i = 0; i < batch.size(); i += kLoadedTogether) {
      runTogether(std::span(batch).subspan(i, std::min(kLoadedTogether, batch.size() - i)),
                  &statuses);
    }
  } catch (const NoBatch& refusal) {
    return doFailUnrun(batch, refusal);
  } catch (...) {
    doAbandonBatch(&statuses);
    throw;
  }
  if (!batchOpen_) return;  // no update came to the point where the target hears of it
  doEndBatch(&statuses);
  core::runOrEndProcess([&] { doEnter(batch, statuses); });
  doRecordFailures(statuses);
}

// A burst has updates of one target call alone: one of all cells of an array makes thousands.
void WriteRun::runTogether(std::span<const uint32_t> offsets, StatusVector* statuses) {
  doLoad(offsets);
  std::optional<Burst> burst;
  for (const uint32_t offset : offsets) {
    if (!isOfOneCall(operations_[offset].update)) {
      burst.reset();
    } else if (!burst) {
      burst.emplace(session_);
    }
    try {
      maybeRunUpdate(offset, statuses);
    } catch (const NoBatch&) {
      throw;
    } catch (const Refusal& refusal) {
      doFail(offset, refusal.code(), refusal.message());
    }
  }
}

// Among a million entries nearly each look-up waits for memory: those of some dozen updates wait
// together.
void WriteRun::doLoad(std::span<const uint32_t> offsets) const {
  std::array<const Entry*, kLoadedTogether> entries{};
  std::array<pi_entry_handle_t, kLoadedTogether> handles{};
  const auto hashAt = [&](size_t i) { return operations_[offsets[i]].update.slot.hash; };
  for (size_t i = 0; i < offsets.size(); ++i) store_.loadSlot(hashAt(i));
  for (size_t i = 0; i < offsets.size(); ++i) entries[i] = store_.loadEntry(hashAt(i));
  size_t known = 0;
  for (const Entry* entry : entries) {
    if (entry == nullptr) continue;
    handles[known++] = entry->handle;
    store_.loadPlace(*entry);
  }
  if (known > 0) pi_table_entries_coming(session_.deviceId, handles.data(), known);
}

void WriteRun::doEndBatch(StatusVector* statuses) {
  batchOpen_ = false;
  pi_batch_current_clear();
  pi_batch_end(session_.handle, true);
  writeStatistics()
      .stage(WriteStage::commit)
      .observe(std::chrono::steady_clock::now() - batchBegan_);
  const StageTimer waiting(WriteStage::hardware);
  _pi_update_pending_status(statuses);
}

// After an exception such as bad_alloc: the target must not keep the batch open, and undoes the
// failed updates.
void WriteRun::doAbandonBatch(StatusVector* statuses) {
  if (!batchOpen_) return;
  for (auto& [offset, error] : *statuses) error.set_canonical_code(code::internal);
  doEndBatch(statuses);
}

void WriteRun::maybeRunUpdate(uint32_t offset, StatusVector* statuses) {
  Operation& operation = operations_[offset];
  CheckedUpdate& update = operation.update;
  // An earlier batch of this Write may have timed out; one that has begun runs to its end.
  if (!batchOpen_) requireWritePermission();
  const Entry* former = store_.committed({update.slot.entry->key(), update.slot.hash});
  state_.prepare(&update, former);
  const bool isCounter = update.subject == CheckedUpdate::Subject::directCounter;
  if (isCounter && !update.counts()) return;  // nothing to change
  const bool isDelete = update.type == Update::DELETE;
  if (former == nullptr && isDelete && update.also().empty()) return;  // as it was in the beginning
  maybeBeginBatch(operation);
  TargetCalls calls(session_, offset);
  // Set before the target hears of the update: the batch may be abandoned in its midst.
  auto& [position, error] = statuses->emplace_back();
  position = offset;
  error.set_canonical_code(code::internal);
  doRunUpdate(store_, &update, former, &calls);
  operation.pending = true;
  if (!calls.anyMade()) {  // nothing changes, so the target has nothing to confirm
    statuses->pop_back();
    return;
  }
  const int status = calls.status();
  operation.failed = status != PI_STATUS_SUCCESS;
  if (status == PI_STATUS_SUCCESS || status == kBatchUpdateFailed) {
    error.set_canonical_code(code::deadlineExceeded);
    return;
  }
  const bool isUnimplemented = status == PI_STATUS_NOT_IMPLEMENTED_BY_TARGET;
  error.set_canonical_code(isUnimplemented ? code::unimplemented : code::internal);
  error.set_message(absl::StrCat("the target refused it with status ", status));
}

void WriteRun::maybeBeginBatch(const Operation& operation) {
  if (batchOpen_) return;
  batchBegan_ = std::chrono::steady_clock::now();
  const pi_status_t begun = pi_batch_begin(session_.handle);
  if (begun == PI_STATUS_NO_FORWARDING_AGENT) {
    throw NoBatch(code::unavailable,
                  "no forwarding agent is attached; write again once one has been started");
  }
  if (begun == PI_STATUS_NOT_IMPLEMENTED_BY_TARGET && fate_ == PI_BATCH_WHOLE_AT_ONCE) {
    refuse(code::unimplemented,
           "DATAPLANE_ATOMIC is not supported: not every attached forwarding agent applies the "
           "changes of a Write at once; use ROLLBACK_ON_ERROR or CONTINUE_ON_ERROR");
  }
  if (begun != PI_STATUS_SUCCESS) {
    requireWritePermission();  // it may have been withdrawn just now
    refuse(code::internal, updateText(operation.update), ": the target began no batch: status ",
           begun);
  }
  batchOpen_ = true;
  anyBatchRun_ = true;
}

// A Write none of whose updates ran is refused as a whole.
void WriteRun::doFailUnrun(const Batch& batch, const NoBatch& refusal) {
  if (!anyBatchRun_) throw refusal;
  for (const uint32_t offset : batch) doFail(offset, refusal.code(), refusal.message());
}

// Enters the updates of a batch that the forwarding plane confirmed. The target has them for good:
// a front end that does not know of them would refuse and overwrite the wrong entries.
void WriteRun::doEnter(const Batch& batch, const StatusVector& failures) {
  doMarkFailed(failures);
  std::vector<Change> changes;
  changes.reserve(batch.size());
  for (const uint32_t offset : batch) {
    Operation& operation = operations_[offset];
    if (!operation.pending) continue;
    operation.pending = false;
    if (operation.update.profile != nullptr) doCountUse(operation.update);
    doCountNames(operation.update);
    changes.push_back({std::move(operation.update.slot), operation.update.type == Update::DELETE});
    std::ranges::move(operation.update.also(), std::back_inserter(changes));
  }
  levels_ == 1 ? store_.commit(changes) : store_.keep(changes);
}

void WriteRun::doMarkFailed(const StatusVector& failures) {
  for (const auto& [offset, error] : failures) {
    if (error.canonical_code() == code::ok || offset >= operations_.size()) continue;
    Operation& operation = operations_[offset];
    if (!operation.pending) continue;
    operation.pending = false;
    operation.failed = true;
  }
}

void WriteRun::doRecordFailures(const StatusVector& failures) {
  for (const auto& [offset, error] : failures) {
    if (offset >= operations_.size() || !operations_[offset].failed) continue;
    const bool timedOut = error.canonical_code() == code::deadlineExceeded;
    const std::string& why = error.message();
    if (error.canonical_code() == code::aborted) {
      doFail(offset, code::aborted, why);
      continue;
    }
    doFail(offset, error.canonical_code(),
           absl::StrCat(updateText(operations_[offset].update), ": ",
                        timedOut && why.empty()
                            ? "the forwarding plane did not confirm it in time; it was undone"
                            : why));
  }
}

void WriteRun::doCountUse(const CheckedUpdate& update) {
  const Entry* former = store_.committed({update.slot.entry->key(), update.slot.hash});
  const bool isDelete = update.type == Update::DELETE;
  use_.countChange(*update.profile, former, isDelete ? nullptr : update.slot.entry.get());
}

void WriteRun::doCountNames(const CheckedUpdate& update) {
  const ActionUser& user = userOf(update);
  if (!user.usesNames) return;
  const Entry* former = store_.committed({update.slot.entry->key(), update.slot.hash});
  if (update.type != Update::DELETE) holdNames(user, update.table, *update.slot.entry);
  if (former != nullptr) takeNames(user, update.table, *former, &goneNames_);
}

// The names of an update count once all of the Write stands.
void WriteRun::noteNames(const CheckedUpdate& update) {
  const ActionUser& user = userOf(update);
  if (!user.usesNames) return;
  const Entry* former = store_.committed({update.slot.entry->key(), update.slot.hash});
  notedNames_.push_back({&user, update.table, EntryPtr(const_cast<Entry*>(former)),
                         update.type == Update::DELETE ? EntryPtr() : update.slot.entry});
}

void WriteRun::doCountNotedNames() {
  for (const NotedNames& noted : notedNames_) {
    if (noted.now) holdNames(*noted.user, noted.table, *noted.now);
    if (noted.former) takeNames(*noted.user, noted.table, *noted.former, &goneNames_);
  }
}

void WriteRun::doFail(uint32_t offset, int code, const std::string& message) {
  if (errors_.empty()) errors_.resize(operations_.size());
  errors_[offset].set_canonical_code(code);
  errors_[offset].set_message(message);
}

}  // namespace pi::fe::proto
