// A PI target that programs entries at once, and confirms, fails or holds back updates as
// the test tells it to. All that was done for a failed update is undone. Like a real one it serves
// everything under one recursive lock, which it gives up while it waits for the outcome of a batch.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <tuple>
#include <vector>

#include "PI/pi_counter.h"
#include "PI/pi_meter.h"
#include "PI/pi_tables.h"
#include "PI/target/pi_extensions_imp.h"
#include "p4/v1/p4runtime.pb.h"

class FakeTarget {
 public:
  struct Key {
    uint32_t tableId;
    uint32_t priority;
    std::string bytes;
    auto operator<=>(const Key&) const = default;
  };
  struct Row {
    uint64_t handle = 0;
    uint32_t actionId = 0;
    std::string action;
    uint64_t indirect = 0;  // a member or group; then there is no action
    std::optional<pi_meter_spec_t> meter = std::nullopt;
    std::optional<pi_counter_data_t> counts = std::nullopt;  // as they were set
    uint64_t controllerMetadata = 0;
    std::string metadata = {};
  };
  struct Member {
    uint32_t profileId = 0;
    uint32_t controllerId = 0;
    uint32_t actionId = 0;
    std::string action;
  };
  struct Group {
    uint32_t profileId = 0;
    uint32_t controllerId = 0;
    std::vector<uint64_t> members;
    std::string metadata;
  };
  struct Call {
    uint32_t offset = 0;
    bool isDelete = false;
    bool isOverwrite = false;
    Key key = {};
    std::string what =
        {};  // of members and groups: "add 1 to 2"; handles of groups without 1 << 32
    uint64_t controllerMetadata = 0;
    std::string metadata = {};
  };
  using Batch = std::vector<Call>;

  FakeTarget();  // becomes the process's target
  ~FakeTarget();

  // The outcome of the update at an offset of the Write; the others succeed.
  void failureIs(uint32_t offset, int canonicalCode, std::string message);
  void timeoutIs(uint32_t offset) { failureIs(offset, 4, ""); }
  // Of the n-th call at the offset, which then does nothing.
  void callStatusIs(uint32_t offset, int status, size_t n = 0) {
    callStatus_[offset] = {n, status};
  }
  // The next entry written at the offset stands, and then memory runs out.
  void memoryEndsAt(uint32_t offset) { memoryEndsAt_ = offset; }
  // Runs when the next batch has been settled.
  void onSettledIs(std::function<void()> call) { onSettled_ = std::move(call); }
  void failuresAreOver() {
    failures_.clear();
    callStatus_.clear();
  }
  // Of all pipelines that come up from here on.
  void abilitiesAre(const pi_abilities_t& abilities) { abilities_ = abilities; }
  const pi_abilities_t& abilities() const { return abilities_; }
  void batchStatusIs(pi_status_t status) { batchStatus_ = status; }  // of beginning one
  void fetchStatusIs(pi_status_t status) { fetchStatus_ = status; }
  void updateDeviceStatusIs(pi_status_t status) { updateDeviceStatus_ = status; }
  // Of controllers' pushes: what becomes of them, and the running pipeline in their words.
  struct Pushes {
    int code = 0;
    std::string message;
    int action = 0;                     // of the last one
    std::optional<std::string> config;  // likewise
    std::string given;
  };
  Pushes pushes;
  int countsWanted = 0;
  // The cells of a register as the forwarding plane tells them; empty: it does not.
  std::function<std::string(uint32_t registerId, uint64_t first, uint32_t count)> registerCells;
  // Of last hits, as the forwarding plane tells them.
  struct LastHits {
    std::map<uint64_t, uint64_t> times;        // nanoseconds by entry; the others are not known
    std::vector<std::vector<uint64_t>> calls;  // the entries asked for
    int code = 0;                              // of the calls after the first `toldCalls`
    size_t toldCalls = 0;
  };
  LastHits lastHits;

  void appliesAtOnceIs(bool appliesAtOnce) { appliesAtOnce_ = appliesAtOnce; }

  // From here on each batch waits for its outcome until batchesAreReleased().
  void batchesAreHeld();
  void awaitHeldBatch();
  void batchesAreReleased();

  // By itself, not through a Write: as after a restart, or a constant entry.
  void rowIs(const Key& key, const Row& row) { rows_[key] = row; }
  void rowDel(const Key& key) { rows_.erase(key); }
  void memberIs(uint64_t handle, const Member& member) { members_[handle] = member; }
  void groupIs(uint64_t handle, const Group& group) { groups_[handle] = group; }
  void countIs(uint64_t handle, const pi_counter_data_t& data) { counts_[handle] = data; }
  void counterStatusIs(pi_status_t status) { counterStatus_ = status; }
  // Runs once, with the lock held, before the next count is given.
  void onCountIs(std::function<void()> call) { onCount_ = std::move(call); }
  size_t countCalls() const { return countCalls_; }  // those for many entries
  size_t cellCalls() const { return cellCalls_; }    // each cell has counted its index in packets

  // Hands everything back, then says that this was all; returns the statuses of the rows. The
  // metadata are for rows without metadata of their own. Leaves out the table `kept`.
  std::vector<pi_status_t> restored(uint64_t controllerMetadata, const std::string& metadata,
                                    uint32_t kept = 0);

  const std::map<Key, Row>& rows() const { return rows_; }
  const std::map<uint64_t, Member>& members() const { return members_; }
  const std::map<uint64_t, Group>& groups() const { return groups_; }
  const std::vector<Batch>& batches() const { return batches_; }
  // The calls of the last batch that wrote members and groups.
  std::vector<std::string> lastCalls() const;
  // Calls that no target would take, such as deleting a member that is in a group.
  const std::vector<std::string>& faults() const { return faults_; }

  // The result of sending the next packets of controllers.
  void packetStatusIs(pi_status_t status) { packetStatus_ = status; }
  const std::vector<std::string>& sent() const { return sent_; }
  // As targets punt: with the lock held.
  pi_status_t punted(const std::string& packet);
  // Runs, with the lock held, when the device is assigned and when it is removed.
  void onDeviceCallIs(std::function<void()> call) { onDeviceCall_ = std::move(call); }

  // The target's side of the calls.
  pi_status_t handleDeviceCall();
  pi_status_t handlePacketOut(const char* packet, size_t size);
  pi_status_t handleBatchBegin();
  pi_status_t handleAdd(const pi_match_key_t& key, const pi_table_entry_t& entry, bool overwrite,
                        uint64_t* handle);
  pi_status_t handleDelete(const pi_match_key_t& key);
  pi_status_t handleMember(const char* verb, uint32_t profileId, const pi_action_data_t* action,
                           uint64_t* handle);
  pi_status_t handleGroup(const char* verb, uint32_t profileId, uint64_t member, uint64_t* handle);
  pi_status_t handleCount(uint64_t handle, pi_counter_data_t* data);
  void handleCells(size_t first, std::span<pi_counter_data_t> counts);
  pi_status_t handleCounts(std::span<const uint64_t> handles, pi_counter_data_t* data);
  pi_status_t handleFetch(uint32_t tableId, pi_table_fetch_res_t* result);
  pi_status_t updateDeviceStatus() const { return updateDeviceStatus_; }
  // The failures among the pending offsets; the calls of failed and refused offsets have then been
  // undone.
  std::map<uint32_t, std::pair<int, std::string>> outcome(const std::vector<uint32_t>& pending,
                                                          const std::vector<uint32_t>& refused);
  // Of a batch with a single fate.
  using Statuses = std::vector<std::pair<uint32_t, p4::v1::Error>>;
  void handleWholeOutcome(Statuses* statuses);

 private:
  pi_abilities_t abilities_{};
  struct Failure {
    int canonicalCode;
    std::string message;
  };
  pi_status_t recorded(Call call);
  template <typename Map>
  void doRemember(Map* map, const typename Map::key_type& key);
  void doUndo(uint32_t offset);
  bool isUsed(uint64_t handle) const;
  bool requireThat(bool sane, const std::string& fault);

  std::recursive_mutex lock_;
  std::condition_variable_any changed_;
  std::map<Key, Row> rows_;
  std::map<uint64_t, Member> members_;
  std::map<uint64_t, Group> groups_;
  std::map<uint64_t, pi_counter_data_t> counts_;
  std::map<uint32_t, std::vector<std::function<void()>>> undo_;  // by offset
  std::vector<std::string> faults_;
  std::vector<Batch> batches_;
  std::map<uint32_t, Failure> failures_;
  std::map<uint32_t, std::pair<size_t, int>> callStatus_;
  std::optional<uint32_t> memoryEndsAt_;
  std::function<void()> onSettled_;
  std::map<uint32_t, size_t> calls_;  // in the current batch, by offset
  pi_status_t counterStatus_ = PI_STATUS_SUCCESS;
  std::function<void()> onCount_;
  pi_status_t batchStatus_ = PI_STATUS_SUCCESS;
  size_t countCalls_ = 0;
  size_t cellCalls_ = 0;
  pi_status_t fetchStatus_ = PI_STATUS_SUCCESS;
  pi_status_t updateDeviceStatus_ = PI_STATUS_SUCCESS;
  pi_status_t packetStatus_ = PI_STATUS_SUCCESS;
  std::vector<std::string> sent_;
  std::function<void()> onDeviceCall_;
  uint64_t lastHandle_ = 100;
  uint64_t lastMember_ = 0;
  uint64_t lastGroup_ = uint64_t{1} << 32;
  bool holding_ = false;
  bool held_ = false;
  bool batchOpen_ = false;
  bool appliesAtOnce_ = false;
};
