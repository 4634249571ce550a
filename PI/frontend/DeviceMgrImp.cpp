// Writes, Reads and the target's own reports on one device.
#include "PI/frontend/DeviceMgrImp.h"

#include <algorithm>
#include <thread>

#include "PI/frontend/base/Permission.h"
#include "PI/frontend/base/Refusal.h"
#include "PI/frontend/base/StatusText.h"
#include "PI/frontend/check/RightsCheck.h"
#include "PI/frontend/read/ReadRun.h"
#include "PI/frontend/write/WaitingWrite.h"
#include "PI/frontends/proto/write_statistics.h"
#include "PI/pi.h"
#include "PI/pi_extensions.h"

namespace pi::fe::proto {

namespace {

constexpr size_t kMaxElements = WriteUpdates::mostKept;

// The other half of the processors stays free for Writes and the reactor.
size_t readTurnCount() { return std::max(1u, std::thread::hardware_concurrency() / 2); }

DeviceMgrImp& imp(void* cookie) { return *static_cast<DeviceMgrImp*>(cookie); }

pi_status_t restoreTableEntry(void* cookie, pi_dev_id_t, pi_p4_id_t tableId,
                              const pi_match_key_t* key, const pi_table_entry_t* entry,
                              pi_entry_handle_t handle, uint64_t controllerMetadata,
                              const char* metadata, size_t metadataSize) {
  if (key == nullptr || entry == nullptr) return PI_STATUS_BUFFER_ERROR;
  return imp(cookie).restoredEntryIs(tableId, *key, *entry, handle, controllerMetadata,
                                     {metadata, metadataSize});
}

pi_status_t restoreMember(void* cookie, pi_dev_id_t, pi_p4_id_t profileId,
                          const pi_action_data_t* action, uint32_t controllerId,
                          pi_indirect_handle_t handle, const char*, size_t) {
  return imp(cookie).restoredMemberIs(profileId, action, controllerId, handle);
}

pi_status_t restoreGroup(void* cookie, pi_dev_id_t, pi_p4_id_t profileId, uint32_t controllerId,
                         const pi_indirect_handle_t* members, size_t count,
                         pi_indirect_handle_t handle, const char* bytes, size_t size) {
  if ((members == nullptr && count != 0) || (bytes == nullptr && size != 0)) {
    return PI_STATUS_BUFFER_ERROR;
  }
  return imp(cookie).restoredGroupIs(profileId, controllerId, {members, count}, handle,
                                     {bytes, size});
}

pi_status_t constantEntry(void* cookie, pi_dev_id_t, pi_p4_id_t tableId, const pi_match_key_t* key,
                          const pi_table_entry_t* entry, pi_entry_handle_t handle) {
  if (key == nullptr) return PI_STATUS_BUFFER_ERROR;
  return imp(cookie).constantEntryIs(tableId, *key, entry, handle);
}

pi_status_t restoreExpect(void* cookie, pi_dev_id_t, size_t tableEntries) {
  return imp(cookie).restoreExpects(tableEntries);
}

pi_status_t restoreKeep(void* cookie, pi_dev_id_t, pi_p4_id_t* tableIds, size_t* count) {
  std::vector<uint32_t> ids(tableIds, tableIds + *count);
  const pi_status_t status = imp(cookie).restoreKeeps(&ids);
  *count = std::ranges::copy(ids, tableIds).out - tableIds;
  return status;
}

pi_status_t digestMessage(void* cookie, pi_dev_id_t, pi_p4_id_t digestId, const char* data,
                          size_t size) {
  return imp(cookie).digestMessage(digestId, {data, size});
}

pi_status_t tableEntryIdle(void* cookie, pi_dev_id_t, pi_p4_id_t tableId,
                           const pi_match_key_t* key) {
  return imp(cookie).entryIdle(tableId, *key);
}

pi_status_t restoreDone(void* cookie, pi_dev_id_t) { return imp(cookie).handleRestoreDone(); }

pi_status_t fixedNames(void* cookie, pi_dev_id_t, pi_fixed_name_t* names, size_t count) {
  return imp(cookie).fixedNamesAre({names, count});
}

// The outcome of a batch comes from its status vector, so nothing hears of entries one by one.
constexpr size_t kFewUpdates = 32;  // of several Writes: waking up would take longer
constexpr pi_frontend_hooks_t kHooks{.entry_status_changed = nullptr,
                                     .restore_table_entry = restoreTableEntry,
                                     .restore_action_profile_member = restoreMember,
                                     .restore_action_profile_group = restoreGroup,
                                     .constant_table_entry = constantEntry,
                                     .restore_done = restoreDone,
                                     .restore_expect = restoreExpect,
                                     .restore_keep = restoreKeep,
                                     .digest_message = digestMessage,
                                     .table_entry_idle = tableEntryIdle,
                                     .fixed_names = fixedNames};

pi_batch_fate_t fateOf(const p4::v1::WriteRequest& request) {
  switch (request.atomicity()) {
    case p4::v1::WriteRequest::CONTINUE_ON_ERROR:
      return PI_BATCH_SINGLE;
    case p4::v1::WriteRequest::ROLLBACK_ON_ERROR:
      return PI_BATCH_WHOLE;
    case p4::v1::WriteRequest::DATAPLANE_ATOMIC:
      return PI_BATCH_WHOLE_AT_ONCE;
    default:
      refuse(code::invalidArgument, "the atomicity ", static_cast<int>(request.atomicity()),
             " is unknown; use CONTINUE_ON_ERROR, ROLLBACK_ON_ERROR or DATAPLANE_ATOMIC");
  }
}

// Null: the caller has no limits.
std::shared_ptr<const EntityRights> rightsOf(const EntityCaller* caller, const Pipeline& pipeline) {
  if (caller == nullptr) return nullptr;
  return caller->rights(pipeline.number(), pipeline.config().p4info());
}

// Bounds the memory that one call can take; errors are told for each element.
void requireSize(size_t elements, const char* what) {
  if (elements <= kMaxElements) return;
  refuse(code::resourceExhausted, "the request has ", elements, " ", what, "; send at most ",
         kMaxElements, " at once");
}

void noteTurn(std::span<WaitingWrite* const> writes) {
  const auto now = std::chrono::steady_clock::now();
  for (const WaitingWrite* write : writes) {
    writeStatistics().stage(WriteStage::turn).observe(now - write->came);
  }
}

}  // namespace

DeviceMgrImp::DeviceMgrImp(pi_dev_id_t deviceId, std::chrono::milliseconds patience)
    : deviceId_(deviceId),
      patience_(patience),
      packetCounts_(core::packetCountsOf(deviceId)),
      readTurns_(readTurnCount()),
      digests_([this](uint32_t digestId, uint64_t listId, const auto& messages) {
        sendDigestList(digestId, listId, messages);
      }) {
  packetInCbIs();  // before the device exists: from then on its packets need a receiver
  pi_session_init(&sessionHandle_);
  pi_frontend_hooks_set(deviceId_, &kHooks, this);
}

DeviceMgrImp::~DeviceMgrImp() {
  pi_frontend_hooks_clear(deviceId_);
  // PI would otherwise go on handing out our P4Info.
  if (pi_is_device_assigned(deviceId_)) pi_remove_device(deviceId_);
  packetInCbDel();
  pi_session_cleanup(sessionHandle_);
}

std::shared_ptr<Pipeline> DeviceMgrImp::pipeline() const {
  const std::lock_guard lock(mutex_);
  return pipeline_;
}

// The pipeline whose entries are being restored, or null.
std::shared_ptr<Pipeline> DeviceMgrImp::restoringPipeline() const {
  const std::lock_guard lock(mutex_);
  return isRestored_ ? nullptr : pipeline_;
}

// The pipeline once controllers may use it.
std::shared_ptr<Pipeline> DeviceMgrImp::awaitedPipeline() const {
  std::unique_lock lock(mutex_);
  if (pipeline_ == nullptr) {
    refuse(code::failedPrecondition, "No forwarding pipeline config on device ", deviceId_, " yet");
  }
  if (!restored_.wait_for(lock, patience_, [this] { return isRestored_; })) {
    refuse(code::unavailable, "device ", deviceId_, " is still restoring its entries; try again");
  }
  return pipeline_;
}

TargetSession DeviceMgrImp::session(const Pipeline& pipeline) const {
  return {deviceId_, sessionHandle_, pipeline.p4info()};
}

DeviceMgrImp::Status DeviceMgrImp::write(const p4::v1::WriteRequest& header,
                                         const WriteUpdates& updates, const DeviceMgr::Admit& admit,
                                         const EntityCaller* caller) {
  return statusOf([&]() -> Status {
    awaitPipelineChange(patience_);
    requireWritePermission();
    const std::shared_ptr<Pipeline> current = awaitedPipeline();
    const pi_batch_fate_t fate = fateOf(header);
    requireSize(updates.count(), "updates");
    const auto rights = rightsOf(caller, *current);
    StageTimer checking(WriteStage::check);
    CheckedWrite checked = checkedWrite(current->index(), updates, rights.get());
    checking.stop();
    WaitingWrite write{updates, fate, admit, caller, current, std::move(checked)};
    writeTurns_.take(write, [this](auto writes) { return runTogether(writes); });
    if (write.error) std::rethrow_exception(write.error);
    return write.status;
  });
}

// Runs the first Write, and those behind it that can share its batches. Returns how many are done.
size_t DeviceMgrImp::runTogether(std::span<WaitingWrite* const> writes) {
  size_t done = 0;  // counts a Write before it is added: one that fails there is not run again
  try {
    const std::lock_guard writing(writeMutex_);
    requireWritePermission();  // the Write before may have brought the critical state
    if (restoringPipeline() != nullptr) {
      refuse(code::unavailable, "device ", deviceId_, " is getting a new pipeline; try again");
    }
    const std::shared_ptr<Pipeline> current = pipeline();
    WriteRun batches(current->index(), current->store(), current->use(), session(*current));
    while (done < writes.size()) {
      WaitingWrite& write = *writes[done++];
      if (write.admit) write.status = write.admit();
      if (write.status.code() != 0) continue;
      if (write.pipeline != current) {
        const auto rights = rightsOf(write.caller, *current);
        write.checked = checkedWrite(current->index(), write.updates, rights.get());
      }
      if (!batches.add(write.checked, write.fate, &write.status)) {
        --done;
        break;
      }
    }
    noteTurn(writes.first(done));
    pi_batch_urgent_set(writes.size() == 1 || batches.size() <= kFewUpdates);
    batches.run();
  } catch (...) {
    done = std::max<size_t>(done, 1);
    for (WaitingWrite* write : writes.first(done)) {
      if (write->status.code() == 0) write->error = std::current_exception();
    }
  }
  return done;
}

DeviceMgrImp::Status DeviceMgrImp::read(const p4::v1::ReadRequest& request,
                                        const DeviceMgr::ReadSink& sink,
                                        const EntityCaller* caller) const {
  return statusOf([&] {
    awaitPipelineChange(patience_);
    requireReadPermission();
    requireSize(request.entities_size(), "queries");
    while (true) {
      const std::shared_ptr<Pipeline> current = awaitedPipeline();
      const auto rights = rightsOf(caller, *current);
      ReadRun run(current->index(), current->store(), session(*current), readTurns_, rights.get());
      if (const auto status = run.run(request, sink)) return *status;
    }
  });
}

bool DeviceMgrImp::mayRead(const EntityCaller& caller, uint32_t objectId) const {
  const std::shared_ptr<Pipeline> current = pipeline();
  if (current == nullptr) return false;
  return rightsOf(&caller, *current)
      ->permits(EntityUse::read, {EntityObject::Kind::ofP4Info, objectId});
}

DeviceMgrImp::Status DeviceMgrImp::requireWritable(const EntityCaller& caller,
                                                   std::span<const uint32_t> objectIds) const {
  return statusOf([&]() -> Status {
    const std::shared_ptr<Pipeline> current = pipeline();
    if (current == nullptr) return {};
    const auto rights = rightsOf(&caller, *current);
    for (const uint32_t id : objectIds) requireWriteRight(current->index(), *rights, id);
    return {};
  });
}

pi_status_t DeviceMgrImp::restoredMemberIs(pi_p4_id_t profileId, const pi_action_data_t* action,
                                           uint32_t controllerId, pi_indirect_handle_t handle) {
  const std::shared_ptr<Pipeline> restoring = restoringPipeline();
  if (restoring == nullptr) return PI_STATUS_INVALID_TABLE_OPERATION;
  return restoring->restoredMemberIs(profileId, action, controllerId, handle);
}

pi_status_t DeviceMgrImp::restoredGroupIs(pi_p4_id_t profileId, uint32_t controllerId,
                                          std::span<const pi_indirect_handle_t> members,
                                          pi_indirect_handle_t handle, std::string_view bytes) {
  const std::shared_ptr<Pipeline> restoring = restoringPipeline();
  if (restoring == nullptr) return PI_STATUS_INVALID_TABLE_OPERATION;
  return restoring->restoredGroupIs(profileId, controllerId, members, handle, bytes);
}

pi_status_t DeviceMgrImp::restoredEntryIs(pi_p4_id_t tableId, const pi_match_key_t& key,
                                          const pi_table_entry_t& entry, pi_entry_handle_t handle,
                                          uint64_t controllerMetadata, std::string_view metadata) {
  const std::shared_ptr<Pipeline> restoring = restoringPipeline();
  if (restoring == nullptr) return PI_STATUS_INVALID_TABLE_OPERATION;
  return restoring->restoredEntryIs(tableId, key, entry, handle, controllerMetadata, metadata);
}

pi_status_t DeviceMgrImp::constantEntryIs(pi_p4_id_t tableId, const pi_match_key_t& key,
                                          const pi_table_entry_t* entry, pi_entry_handle_t handle) {
  const std::shared_ptr<Pipeline> restoring = restoringPipeline();
  if (restoring == nullptr) return PI_STATUS_INVALID_TABLE_OPERATION;
  return restoring->constantEntryIs(tableId, key, entry, handle);
}

pi_status_t DeviceMgrImp::restoreExpects(size_t tableEntries) {
  const std::shared_ptr<Pipeline> restoring = restoringPipeline();
  if (restoring == nullptr) return PI_STATUS_INVALID_TABLE_OPERATION;
  restoring->restoreExpects(tableEntries);
  return PI_STATUS_SUCCESS;
}

// The former pipeline's store goes over with them: its entries can be taken once.
pi_status_t DeviceMgrImp::restoreKeeps(std::vector<uint32_t>* tableIds) {
  const std::shared_ptr<Pipeline> restoring = restoringPipeline();
  if (restoring == nullptr) return PI_STATUS_INVALID_TABLE_OPERATION;
  std::shared_ptr<const Pipeline> former;
  {
    const std::lock_guard lock(mutex_);
    former = std::exchange(former_, nullptr);
  }
  *tableIds = former ? restoring->keepTables(*former, *tableIds) : std::vector<uint32_t>();
  return PI_STATUS_SUCCESS;
}

pi_status_t DeviceMgrImp::fixedNamesAre(std::span<pi_fixed_name_t> names) {
  for (pi_fixed_name_t& name : names) name.fault = PI_FIXED_NAME_TAKEN;
  const std::shared_ptr<Pipeline> current = pipeline();
  if (current != nullptr) current->fixedNamesAre(names);
  return PI_STATUS_SUCCESS;
}

pi_status_t DeviceMgrImp::handleRestoreDone() {
  const std::shared_ptr<Pipeline> restoring = restoringPipeline();
  if (restoring == nullptr) return PI_STATUS_INVALID_TABLE_OPERATION;
  const bool complete = restoring->doFinishRestore(session(*restoring));
  const std::lock_guard lock(mutex_);
  former_ = nullptr;
  if (pipeline_ == restoring) isRestored_ = true;
  restored_.notify_all();
  // Controllers get in all the same.
  return complete ? PI_STATUS_SUCCESS : PI_STATUS_INVALID_ENTRY_TYPE;
}

}  // namespace pi::fe::proto
