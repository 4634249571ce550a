// A PI target that programs what it is given at once, and confirms, fails or holds back updates as
// the test tells it to. Like a real one it serves everything under one recursive lock, which it
// gives up while it waits for the outcome of a batch.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "PI/pi_tables.h"

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
  };
  struct Call {
    uint32_t offset = 0;
    bool isDelete = false;
    bool isOverwrite = false;
    Key key;
    uint64_t controllerMetadata = 0;
    std::string metadata;
  };
  using Batch = std::vector<Call>;

  FakeTarget();  // becomes the process's target
  ~FakeTarget();

  // What becomes of the update at an offset of the Write; the others succeed.
  void failureIs(uint32_t offset, int canonicalCode, std::string message);
  void timeoutIs(uint32_t offset) { failureIs(offset, 4, ""); }
  void callStatusIs(uint32_t offset, int status) { callStatus_[offset] = status; }
  void fetchStatusIs(pi_status_t status) { fetchStatus_ = status; }
  void updateDeviceStatusIs(pi_status_t status) { updateDeviceStatus_ = status; }

  // From here on each batch waits for its outcome until batchesAreReleased().
  void batchesAreHeld();
  void awaitHeldBatch();
  void batchesAreReleased();

  // By itself, not through a Write: as after a restart, or a constant entry.
  void rowIs(const Key& key, const Row& row) { rows_[key] = row; }
  // Hands every row back, then says that this was all; the statuses of the rows.
  std::vector<pi_status_t> restored(uint64_t controllerMetadata, const std::string& metadata);

  const std::map<Key, Row>& rows() const { return rows_; }
  const std::vector<Batch>& batches() const { return batches_; }

  // The target's side of the calls.
  pi_status_t handleBatchBegin();
  pi_status_t handleAdd(const pi_match_key_t& key, const pi_table_entry_t& entry, bool overwrite,
                        uint64_t* handle);
  pi_status_t handleDelete(const pi_match_key_t& key);
  pi_status_t handleFetch(uint32_t tableId, pi_table_fetch_res_t* result);
  pi_status_t updateDeviceStatus() const { return updateDeviceStatus_; }
  // The failures among these offsets, after their rows went back to what they were.
  std::map<uint32_t, std::pair<int, std::string>> outcome(const std::vector<uint32_t>& offsets);

 private:
  struct Failure {
    int canonicalCode;
    std::string message;
  };
  pi_status_t recorded(Call call, const Row* row, uint64_t* handle);

  std::recursive_mutex lock_;
  std::condition_variable_any changed_;
  std::map<Key, Row> rows_;
  std::map<uint32_t, std::pair<Key, Row>> undo_;  // by offset; Row{} for none
  std::vector<Batch> batches_;
  std::map<uint32_t, Failure> failures_;
  std::map<uint32_t, int> callStatus_;
  pi_status_t fetchStatus_ = PI_STATUS_SUCCESS;
  pi_status_t updateDeviceStatus_ = PI_STATUS_SUCCESS;
  uint64_t lastHandle_ = 100;
  bool holding_ = false;
  bool held_ = false;
};
