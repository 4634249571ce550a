// Carries out Writes: runs their updates through the target in batches, and enters the confirmed
// outcome into the store.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include "PI/frontend/base/Refusal.h"
#include "PI/frontend/check/CheckedUpdate.h"
#include "PI/frontend/check/StateCheck.h"
#include "PI/frontend/store/EntryStore.h"
#include "PI/frontend/store/ProfileUse.h"
#include "PI/frontend/target/TargetSession.h"
#include "PI/frontend/write/NameWrites.h"
#include "PI/frontend/write/TentativeEntries.h"
#include "PI/frontend/write/WriteOrder.h"
#include "PI/frontends/proto/entity_rights.h"
#include "PI/frontends/proto/write_updates.h"
#include "PI/pi_base.h"
#include "PI/pi_extensions.h"
#include "google/rpc/status.pb.h"

namespace pi::fe::proto {

// An update of a Write on its way.
struct WriteOperation {
  CheckedUpdate update;
  bool runs = false;     // not refused by the check
  uint32_t level = 0;    // the batch it runs in
  bool pending = false;  // given to the target; ends in its status vector or succeeded
  bool failed = false;   // there, or in the target's first answer
};

// The updates of a Write, checked against the P4Info alone.
struct CheckedWrite {
  std::vector<WriteOperation> operations;  // one an update
  std::vector<p4::v1::Error> errors;       // empty, or one an update
};
// `rights` are the caller's; null: it may write all.
// Throws a Refusal when the Write is no message, with nothing to be done.
CheckedWrite checkedWrite(const P4InfoIndex& index, const WriteUpdates& updates,
                          const EntityRights* rights);

// For one Write, or for several that share their batches. One runs at a time for a store; no lock
// of the front end but that of its Writes may be held, since the target takes its own and waits for
// the forwarding plane.
class WriteRun {
 public:
  WriteRun(const P4InfoIndex& index, EntryStore& store, ProfileUse& use,
           const TargetSession& session)
      : index_(index), store_(store), use_(use), session_(session), state_(store, use) {}

  // Adds a Write, whose status run() sets. False for one that must wait for the outcome of those
  // added before, or makes the batch too large: it is left as it was, and no other can be added.
  // One that stands or falls as a whole has a run of its own.
  bool add(CheckedWrite& write, pi_batch_fate_t fate, google::rpc::Status* status);
  size_t size() const { return operations_.size(); }  // updates
  // Throws a Refusal, or an exception of a library, when none of it can be run.
  void run();

 private:
  using StatusVector = std::vector<std::pair<uint32_t, p4::v1::Error>>;
  using Batch = std::vector<uint32_t>;  // offsets, ascending

  // The target takes no batch; the message tells controllers.
  struct NoBatch : Refusal {
    using Refusal::Refusal;
  };
  using Operation = WriteOperation;
  // An update of a Write that stands or falls as a whole: the entries before and after it.
  struct NotedNames {
    const ActionUser* user;
    const TablePlan* table;
    EntryPtr former;
    EntryPtr now;
  };
  // A Write's part of the operations.
  struct Part {
    uint32_t first;
    uint32_t count;
    google::rpc::Status* status;
  };

  bool fits(const CheckedWrite& write, pi_batch_fate_t fate) const;
  void runWhole();
  void runWholeUpdates(StatusVector* statuses, TentativeEntries* entries);
  static void requireAtOnce(const CheckedUpdate& update);
  void maybeRunWholeUpdate(uint32_t offset, StatusVector* statuses, TentativeEntries* entries);
  void doAbortOthers();
  void doOrder(uint32_t offset);
  void doRemoveLast(CheckedWrite* write);
  google::rpc::Status statusOf(const Part& part) const;
  std::vector<Batch> batches() const;
  void doStoreNames();
  void doForgetNames();
  void doRunBatch(const Batch& batch);
  void runTogether(std::span<const uint32_t> offsets, StatusVector* statuses);
  void doLoad(std::span<const uint32_t> offsets) const;
  void doEndBatch(StatusVector* statuses);
  void doAbandonBatch(StatusVector* statuses);
  void maybeRunUpdate(uint32_t offset, StatusVector* statuses);
  void maybeBeginBatch(const Operation& operation);
  void doFailUnrun(const Batch& batch, const NoBatch& refusal);
  void doEnter(const Batch& batch, const StatusVector& failures);
  void doMarkFailed(const StatusVector& failures);
  void doRecordFailures(const StatusVector& failures);
  void doCountUse(const CheckedUpdate& update);
  void doCountNames(const CheckedUpdate& update);
  void noteNames(const CheckedUpdate& update);
  void doCountNotedNames();
  void doFail(uint32_t offset, int code, const std::string& message);

  const P4InfoIndex& index_;
  EntryStore& store_;
  ProfileUse& use_;
  const TargetSession session_;
  NameWrites nameWrites_{index_, session_};
  NamePins goneNames_;  // of former entries, until Reads that begin show them no more
  StateCheck state_;
  WriteOrder order_{store_, use_};
  std::vector<Part> parts_;
  std::vector<Operation> operations_;  // one an update
  std::vector<p4::v1::Error> errors_;  // empty, or one an update
  std::vector<NotedNames> notedNames_;
  uint32_t levels_ = 0;
  pi_batch_fate_t fate_ = PI_BATCH_SINGLE;
  bool batchOpen_ = false;
  std::chrono::steady_clock::time_point batchBegan_;
  bool anyBatchRun_ = false;
};

}  // namespace pi::fe::proto
