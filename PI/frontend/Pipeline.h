// One pipeline of a device and the entries written to it; a new pipeline starts without any.
#pragma once

#include <atomic>

#include "PI/frontend/model/P4InfoIndex.h"
#include "PI/frontend/model/PacketHeaders.h"
#include "PI/frontend/restore/RestoredProfiles.h"
#include "PI/frontend/store/EntryStore.h"
#include "PI/frontend/store/ProfileUse.h"
#include "PI/frontend/target/TargetSession.h"
#include "PI/int/pi_int.h"
#include "PI/pi_extensions.h"

namespace pi::fe::proto {

// Threads: constant after construction, except store(), which is thread-safe, hasSentPackets(), and
// use(), which belongs to the Write in progress. The restore functions run before controllers get
// in.
// Errors: only the constructor throws; a restore function that returns another status than success
// has taken nothing over.
// Lifetime: shared by the device and the calls that began while it was the device's pipeline.
class Pipeline {
 public:
  // Throws a Refusal (INVALID_ARGUMENT) when the configuration cannot be realised.
  explicit Pipeline(const p4::v1::ForwardingPipelineConfig& config);

  uint64_t number() const { return number_; }  // no other one of the process has it
  const p4::v1::ForwardingPipelineConfig& config() const { return config_; }
  const P4InfoIndex& index() const { return index_; }
  const PacketHeaders& packetHeaders() const { return packetHeaders_; }
  EntryStore& store() { return *store_; }
  const EntryStore& store() const { return *store_; }
  ProfileUse& use() { return use_; }  // for the Write in progress
  const pi_p4info_t* p4info() const { return &p4info_; }
  const std::string& deviceData() const { return deviceData_; }  // for the target

  // Whether the target has ever sent a packet of a controller with this pipeline. Any thread.
  bool hasSentPackets() const { return hasSentPackets_.load(std::memory_order_relaxed); }
  void hasSentPacketsIs() {
    if (!hasSentPackets()) hasSentPackets_.store(true, std::memory_order_relaxed);
  }

  // Whether P4Info and device configuration are the same.
  bool equals(const p4::v1::ForwardingPipelineConfig& config) const;

  // Take over the objects that the target holds after a restart, before controllers get in:
  // members, groups, entries, in that order. The store has all of them once the restore is
  // finished.
  void restoreExpects(size_t entries);  // makes room for them
  // Before all others: takes the store over in which `former` has its entries, with those of the
  // given tables that both pipelines define alike. Returns these tables; `former` is not restored
  // any more.
  std::vector<uint32_t> keepTables(const Pipeline& former, std::span<const uint32_t> tableIds);
  pi_status_t restoredMemberIs(uint32_t profileId, const pi_action_data_t* action,
                               uint32_t controllerId, uint64_t handle);
  pi_status_t restoredGroupIs(uint32_t profileId, uint32_t controllerId,
                              std::span<const uint64_t> members, uint64_t handle,
                              std::string_view bytes);
  pi_status_t restoredEntryIs(uint32_t tableId, const pi_match_key_t& key,
                              const pi_table_entry_t& given, uint64_t handle,
                              uint64_t controllerMetadata, std::string_view metadata);
  // `given` is null for an entry that was restored.
  pi_status_t constantEntryIs(uint32_t tableId, const pi_match_key_t& key,
                              const pi_table_entry_t* given, uint64_t handle);
  // Names with numbers of the configuration, in place of the former ones; any thread. Sets their
  // faults.
  void fixedNamesAre(std::span<pi_fixed_name_t> names);
  // Ends the restore, after the last object. The target programs constant and initial entries by
  // itself. Takes the target's lock. False when it could not list the entries of some table.
  bool doFinishRestore(const TargetSession& session);

 private:
  pi_status_t restoredNameIs(NamedType& type, const pi_match_key_t& key,
                             const pi_table_entry_t& given);
  pi_status_t constantNameIs(NamedType& type, const pi_match_key_t& key,
                             const pi_table_entry_t* given);
  void holdNamesOf(std::span<const uint32_t> tableIds);
  bool adoptEntry(const TablePlan& table, EntryPtr entry);
  void enterAdopted();
  bool doAdoptInitialEntries(const TargetSession& session);
  bool doCompleteBareEntities(const TargetSession& session);

  const uint64_t number_;
  const p4::v1::ForwardingPipelineConfig config_;
  const std::string deviceData_;
  const pi_abilities_t abilities_;
  const P4InfoIndex index_;
  const PacketHeaders packetHeaders_;
  pi_p4info_t p4info_;
  std::shared_ptr<EntryStore> store_ = std::make_shared<EntryStore>();
  ProfileUse use_;
  std::atomic<bool> hasSentPackets_{false};
  std::optional<RestoredProfiles> restored_;  // until the restore is finished
  std::vector<EntrySlot> adopted_;      // of tables without a profile; the store is yet to get them
  std::vector<EntryPtr> bareEntities_;  // that came without metadata, until their lists are read
};

}  // namespace pi::fe::proto
