// Carries out one Write: checks its updates, runs them through the target in batches, and enters
// what the forwarding plane confirmed into the store.
#pragma once

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "PI/frontend/EntryStore.h"
#include "PI/frontend/TargetSession.h"
#include "PI/frontend/UpdateCheck.h"
#include "PI/pi_base.h"
#include "google/rpc/status.pb.h"

namespace pi::fe::proto {

// For one Write. One runs at a time for a store, on the thread that answers the Write; no lock may
// be held, since the target takes its own and waits for the forwarding plane.
class WriteRun {
 public:
  WriteRun(const P4InfoIndex& index, EntryStore& store, const TargetSession& session)
      : index_(index), store_(store), session_(session) {}

  google::rpc::Status run(const p4::v1::WriteRequest& request);

 private:
  using StatusVector = std::vector<std::pair<uint32_t, p4::v1::Error>>;
  static constexpr uint32_t kNone = UINT32_MAX;

  // Updates of one key form a chain: each runs in a batch after the one before it.
  struct Operation {
    CheckedUpdate update;
    WriteLog::Touched* touched = nullptr;
    uint32_t next = kNone;
    bool pending = false;  // given to the target; ends in its status vector or succeeded
  };

  void doCheck(const p4::v1::WriteRequest& request);
  void doChain(uint32_t offset);
  void doRunBatches();
  void doRunBatch(const std::vector<uint32_t>& batch);
  void maybeRunUpdate(uint32_t offset, StatusVector* statuses);
  void requireState(Operation* operation);
  void doKeepAction(Operation* operation, const Entry& committed);
  pi_status_t addStatus(Operation* operation);
  pi_status_t deleteStatus(const Operation& operation);
  void doRecordOutcome(const std::vector<uint32_t>& batch, const StatusVector& failures);
  void doFail(uint32_t offset, int code, const std::string& message);
  std::string text(const Operation& operation) const;

  const P4InfoIndex& index_;
  EntryStore& store_;
  const TargetSession session_;
  std::vector<Operation> operations_;  // one an update; without a table when refused
  std::vector<p4::v1::Error> errors_;  // empty, or one an update
  std::vector<uint32_t> firstBatch_;   // offsets, ascending
  std::shared_ptr<WriteLog> log_;
  bool batchOpen_ = false;
};

}  // namespace pi::fe::proto
