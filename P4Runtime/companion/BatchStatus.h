// The state of the write batch in progress: the entries that it wrote, the reports of forwarding
// agents on them, and the number of reports that the waiting thread has yet to see.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <absl/container/inlined_vector.h>

#include "P4Runtime/companion/BatchTimeout.h"
#include "P4Runtime/companion/ErrorCode.h"
#include "P4Runtime/companion/HandleMap.h"
#include "P4Runtime/companion/ResourceId.h"
#include "platform/lattice/Database.h"
#include "platform/vela/Entity.h"

namespace P4Runtime {

// The outcome of one entry's programming.
class BatchStatusEntry {
 public:
  BatchStatusEntry(EntryHandle entryHandle, uint16_t errorCode, std::string errorMessage = {})
      : entryHandle_(entryHandle), errorCode_(errorCode), errorMessage_(std::move(errorMessage)) {}

  EntryHandle entryHandle() const { return entryHandle_; }
  uint16_t errorCode() const { return errorCode_; }
  const std::string& errorMessage() const { return errorMessage_; }
  // Gives an entry without a message the text of its error code; code 0 has no text.
  void setErrorMessage();

 private:
  EntryHandle entryHandle_;
  uint16_t errorCode_;
  std::string errorMessage_;
};

// A report counts once, and only if its handle and its sequence number match a pending operation of
// the current batch. Each accepted report adds 1 to the notification descriptor.
// Threads: call with the activity lock held; only the descriptor may be waited on without it.
// Errors: dropped reports are counted; a batch that does not fit the store fails all its updates.
// Lifetime: shared; the database, if any, outlives it, and so do the objects that the handlers use.
class BatchStatus : public Vela::Entity {
 public:
  // `database` may be null: the batch then has no shared tables to open and close (tests).
  explicit BatchStatus(std::string name, Lattice::Database* database = nullptr);
  const char* typeName() const override { return "P4Runtime::BatchStatus"; }

  VELA_READONLY_ATTRIBUTE(int, notifyFd, -1)         // an eventfd; not owned
  VELA_ATTRIBUTE(BatchTimeout, batchTimeout, 5.0)    // for each wait
  VELA_ATTRIBUTE(bool, pretendHwProgramming, false)  // the switch for the four below
  VELA_ATTRIBUTE(bool, pretendHwProgrammingFailed, false)
  VELA_ATTRIBUTE(uint32_t, pretendHwProgrammingFailedOffset, 0)
  VELA_ATTRIBUTE(bool, pretendHwProgrammingTimeout, false)
  VELA_ATTRIBUTE(uint32_t, pretendHwProgrammingTimeoutOffset, 0)
  // From onBatchBegin() to onBatchSettled(); observers run on the thread of the batch.
  VELA_READONLY_ATTRIBUTE(bool, inProgress, false)
  VELA_READONLY_ATTRIBUTE(uint64_t, reportsAccepted, 0)
  VELA_READONLY_ATTRIBUTE(uint64_t, reportsDropped, 0)  // late, duplicate, unknown or out of step

 public:
  // The number of attached forwarding agents. For `grace` after each change,
  // awaitForwardingAgent() waits for another one to attach.
  void forwardingAgentsAre(size_t count, std::chrono::milliseconds grace);
  // Whether any forwarding agent is attached that can program a batch. Waits as long as the grace
  // lasts, and gives the activity lock up meanwhile.
  bool awaitForwardingAgent();

  // Whether each attached forwarding agent applies a commit at once, and there is one.
  bool appliesAtOnce() const;

  // Empties the descriptor and the maps, opens the shared batch. An urgent one is worth a processor
  // that looks for its reports. A whole one has a single fate.
  void onBatchBegin(bool isUrgent = true, bool isWhole = false);
  bool isWhole() const { return isWhole_; }
  void showAhead();              // lets forwarding agents program the batch so far, if they may
  void onBatchEnd();             // makes the batch's rows and records visible, all at once
  void onBatchUpdateComplete();  // the waiting begins
  // Looks for a moment whether the forwarding agents have programmed the batch, and takes in all
  // that they have said. Gives the activity lock up meanwhile.
  void lookForReports();
  void onBatchSettled();  // every outcome is known
  // Puts back each update that has a handle still pending, in the reverse order of its writes;
  // reports on it count no more.
  void onBatchRollback();
  // Every operation of the batch has failed, for a reason outside of it.
  void failAll(const std::string& reason);
  // For a batch that was undone: its changes count as programmed once the forwarding agents have
  // programmed all up to `sequence`. Waits like for any other, with isUndone() as the outcome.
  void undoingIs(uint64_t sequence);
  bool isUndone() const { return !pendingOperationHas(undoing) && !undoingFailed_; }
  void onBatchConfirmed();  // all of it is programmed: its last records may be stored later
  void cleanUpBatchState();

  // An offset may have several handles: its update then succeeds only with all of them.
  void newEntryHandleForBatchOffset(EntryHandle handle, BatchOffset offset);
  // A handle written at several offsets stands for all of them, in ascending order.
  using Offsets = absl::InlinedVector<BatchOffset, 2>;
  Offsets offsetsOf(EntryHandle handle) const;  // none for a handle that the batch has not written

  // An entry, member or group of the batch.
  struct Written {
    enum class Progress : uint8_t { none, pending, completed };

    uint64_t sequence = 0;  // of the report that completes it
    Progress progress = Progress::none;
    bool hasOffset = false;
    BatchOffset lastOffset = 0;
    uint32_t earlier = 0;  // 1 + where its earlier offsets begin; 0: there are none
    uint32_t failure = 0;  // 1 + the place of its failure; 0: it has none
  };
  // In the order in which they were first written.
  const HandleMap<Written>& written() const { return written_; }
  // Whether each one is completed without failure.
  bool allSucceeded() const { return failures_.empty() && completedCount_ == written_.size(); }

  // The handle has a pending operation that the report with this sequence number will complete; its
  // earlier operation in the batch, and the completion of that, are forgotten.
  void pendingOperationIs(EntryHandle handle, uint64_t sequence);
  // The handle's report is no longer awaited: the operation was undone, or settled otherwise.
  void pendingOperationDel(EntryHandle handle);
  void pendingOperationDelAll();
  bool pendingOperationHas(EntryHandle handle) const {
    const auto* item = written_.find(handle);
    return item && item->value.progress == Written::Progress::pending;
  }
  size_t pendingOperationCount() const { return pendingCount_; }

  // Completes the entry's operation. An entry without a pending operation is complete without the
  // forwarding plane: the baseline then rises along with the count.
  void completedTransactionStatusIs(BatchStatusEntry entry);
  // Nothing for an operation that is not completed.
  std::optional<BatchStatusEntry> completedTransactionStatus(EntryHandle handle) const;

  // No report on the handle counts in this batch, not even one that has come already.
  void pretendSilence(EntryHandle handle);

  // A group of reports from the forwarding agents, and their word that they are in step.
  void reportsAre(std::span<const Lattice::Report> reports);
  void inStepIs(uint64_t sequence);
  // Their word that each change up to `sequence` is programmed whose failure they have not
  // reported.
  void programmedIs(uint64_t sequence);
  // Called by onBatchRollback() for each entry to put back.
  void rollbackHandlerIs(std::function<void(EntryHandle)> handler) {
    rollBack_ = std::move(handler);
  }
  // Told of each report that completes no pending operation, before it is dropped.
  void strayReportHandlerIs(std::function<void(const Lattice::Report&)> handler) {
    strayReport_ = std::move(handler);
  }

  // To be taken off the first count read from the descriptor; reading it spends it.
  uint64_t completedOperationBaseline();

 private:
  static constexpr EntryHandle undoing = 0;  // the handle of no entry

  bool anyForwardingAgent();
  void notify(uint64_t count);
  bool accept(const Lattice::Report& report);
  uint64_t completeUpTo(uint64_t sequence);
  void progressIs(Written& one, Written::Progress progress);
  void completedIs(Written& one, BatchStatusEntry entry);
  std::vector<EntryHandle> unfinishedUpdates() const;

  Lattice::Database* database_;
  HandleMap<Written> written_;
  // The offsets of a handle before its last one, as a list: each names the one before it.
  struct EarlierOffset {
    BatchOffset offset = 0;
    uint32_t earlier = 0;  // as in Written
  };
  std::vector<EarlierOffset> earlier_;
  std::vector<BatchStatusEntry> failures_;
  size_t pendingCount_ = 0;
  size_t completedCount_ = 0;
  size_t firstPending_ = 0;  // none before this place of written_ is pending
  bool inOrder_ = true;      // the sequence numbers ascend along written_
  bool isUrgent_ = false;
  bool isWhole_ = false;
  bool undoingFailed_ = false;  // a forwarding agent has said so
  uint64_t baseline_ = 0;
  std::mutex notifyMutex_;  // guards writes to notifyFd(), and batch_; taken last
  uint64_t batch_ = 0;      // changed under both locks: counts of a former batch are dropped
  std::mutex agentsMutex_;  // guards the three members below; taken last
  std::condition_variable agentsChange_;
  size_t forwardingAgents_ = 0;
  std::chrono::steady_clock::time_point graceEnd_;
  std::function<void(EntryHandle)> rollBack_;
  std::function<void(const Lattice::Report&)> strayReport_;
};

}  // namespace P4Runtime
