// The implementation of DeviceMgr: orders Writes, Reads, pipeline changes and the target's own
// reports.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string_view>

#include "PI/core/PacketCounts.h"
#include "PI/frontend/Pipeline.h"
#include "PI/frontend/notices/DigestLists.h"
#include "PI/frontend/read/ReadTurns.h"
#include "PI/frontend/write/WriteTurns.h"
#include "PI/frontends/proto/device_mgr.h"
#include "PI/int/pi_frontend_hooks.h"

namespace pi::fe::proto {

// Threads: any thread may call, several at once. Writes and changes of the pipeline run one after
// another; Reads, packets and the target's reports wait for none of them. It holds no lock of its
// own in calls of a sink or of the stream's callback.
// Errors: statuses with the canonical codes of P4Runtime; nothing is thrown. Until a restore is
// done controllers' calls wait for `patience`, then get UNAVAILABLE.
// Lifetime: the target's hooks point here from construction to destruction; destroy it when no call
// is running.
class DeviceMgrImp {
 public:
  using Status = google::rpc::Status;
  using Action = p4::v1::SetForwardingPipelineConfigRequest::Action;
  using Config = p4::v1::ForwardingPipelineConfig;

  // `patience`: how long controllers' calls wait for the end of a restore.
  explicit DeviceMgrImp(pi_dev_id_t deviceId,
                        std::chrono::milliseconds patience = std::chrono::seconds(5));
  ~DeviceMgrImp();
  DeviceMgrImp(const DeviceMgrImp&) = delete;
  DeviceMgrImp& operator=(const DeviceMgrImp&) = delete;

  Status pipelineConfigSet(Action action, const Config& config);
  static Status pipelineConfigPush(pi_dev_id_t deviceId, Action action, const Config* config);
  void handleGivenChanged();  // by a controller; asks the target
  Status pipelineConfig(p4::v1::GetForwardingPipelineConfigRequest::ResponseType type,
                        Config* config) const;
  bool hasPipeline() const { return pipeline() != nullptr; }

  Status write(const p4::v1::WriteRequest& request, const DeviceMgr::Admit& admit = nullptr,
               const EntityCaller* caller = nullptr) {
    return write(request, WriteUpdates(request), admit, caller);
  }
  Status write(const p4::v1::WriteRequest& header, const WriteUpdates& updates,
               const DeviceMgr::Admit& admit, const EntityCaller* caller);
  Status read(const p4::v1::ReadRequest& request, const DeviceMgr::ReadSink& sink,
              const EntityCaller* caller = nullptr) const;
  bool mayRead(const EntityCaller& caller, uint32_t objectId) const;
  Status requireWritable(const EntityCaller& caller, std::span<const uint32_t> objectIds) const;
  Status streamMessage(const p4::v1::StreamMessageRequest& request) const;
  void streamResponseCbIs(DeviceMgr::StreamMessageResponseCb cb, void* cookie);

  // A packet that the target punts, with its header; the target may hold its lock. A packet without
  // a receiver is dropped and counted.
  void packetIn(std::string_view received) const;

  // The target's reports; it may hold its lock.
  pi_status_t restoredEntryIs(pi_p4_id_t tableId, const pi_match_key_t& key,
                              const pi_table_entry_t& entry, pi_entry_handle_t handle,
                              uint64_t controllerMetadata, std::string_view metadata);
  pi_status_t restoredMemberIs(pi_p4_id_t profileId, const pi_action_data_t* action,
                               uint32_t controllerId, pi_indirect_handle_t handle);
  pi_status_t restoredGroupIs(pi_p4_id_t profileId, uint32_t controllerId,
                              std::span<const pi_indirect_handle_t> members,
                              pi_indirect_handle_t handle, std::string_view bytes);
  pi_status_t constantEntryIs(pi_p4_id_t tableId, const pi_match_key_t& key,
                              const pi_table_entry_t* entry, pi_entry_handle_t handle);
  pi_status_t restoreExpects(size_t tableEntries);
  pi_status_t restoreKeeps(std::vector<uint32_t>* tableIds);
  pi_status_t handleRestoreDone();
  pi_status_t digestMessage(pi_p4_id_t digestId, std::string_view message);
  pi_status_t entryIdle(pi_p4_id_t tableId, const pi_match_key_t& key) const;
  pi_status_t fixedNamesAre(std::span<pi_fixed_name_t> names);

  std::shared_ptr<Pipeline> pipeline() const;

 private:
  size_t runTogether(std::span<WaitingWrite* const> writes);
  std::shared_ptr<Pipeline> restoringPipeline() const;
  std::shared_ptr<Pipeline> awaitedPipeline() const;
  void packetInCbIs();
  void packetInCbDel();
  void doSend(const p4::v1::PacketOut& packet) const;
  void doAcknowledge(const p4::v1::DigestListAck& ack) const;
  void sendDigestList(uint32_t digestId, uint64_t listId,
                      const std::vector<std::string>& messages) const;
  // Says whether it could.
  bool sendToPrimaries(p4::v1::StreamMessageResponse* response) const;
  TargetSession session(const Pipeline& pipeline) const;
  void doCommit(std::shared_ptr<Pipeline> next);
  void doInstall(const Pipeline& pipeline);
  void doApply(Action action, const Config& config);

  const pi_dev_id_t deviceId_;
  const std::chrono::milliseconds patience_;
  core::PacketCounts& packetCounts_;
  mutable ReadTurns readTurns_;
  pi_session_handle_t sessionHandle_ = 0;

  // Guards no member: lets one turn of Writes or change of pipeline run at a time. Held in calls of
  // the target, which takes its own lock: no function that the target calls may take this one.
  std::mutex writeMutex_;
  WriteTurns writeTurns_;

  // Guards the members below. A leaf: taken by the target's reports, never held in calls of the
  // target.
  mutable std::mutex mutex_;
  mutable std::condition_variable restored_;
  std::shared_ptr<Pipeline> pipeline_;  // null: none yet
  bool isRestored_ = false;
  std::shared_ptr<const Pipeline> former_;  // has all its entries; null: none, or not for use
  std::shared_ptr<Pipeline> saved_;         // to be committed
  std::shared_ptr<const Config> given_;     // the running one, by its controller; null: by none
  std::shared_ptr<const DeviceMgr::StreamMessageResponseCb> streamResponseCb_;
  void* streamResponseCookie_ = nullptr;

  mutable DigestLists digests_;  // the last member: its thread uses the others
};

}  // namespace pi::fe::proto
