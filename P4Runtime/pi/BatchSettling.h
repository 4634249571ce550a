// Folds the forwarding agents' reports into the answer to a write batch: entries that
// succeeded become stable; entries that failed, or were never reported on, are put back.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "P4Runtime/companion/BatchStatus.h"
#include "P4Runtime/companion/P4HandleMgr.h"
#include "P4Runtime/pi/BatchEntries.h"
#include "P4Runtime/pi/StatusVector.h"

namespace P4Runtime {

// Settles one batch, on the thread that asks for its outcome, with the activity lock held. The
// objects given to the constructor outlive this.
class BatchSettling {
 public:
  // `server` may be null: the device is then 0.
  BatchSettling(StatusVector& statusVector, BatchStatus& batchStatus, BatchEntries& entries,
                const P4HandleMgr& handleMgr, const DeviceServer* server)
      : statusVector_(statusVector),
        batchStatus_(batchStatus),
        entries_(entries),
        handleMgr_(handleMgr),
        server_(server) {}

  // Waits for the reports without the activity lock, then settles each update. `known`: the errors
  // that were known while the batch ran. Throws as maybeHandleTimedOut() does.
  void settle(const StatusVector& known);
  // Stores the outcome, also when settle() has thrown.
  void storeOutcome();

  // Settles a handle's element: removes it when programmed (error code 0), else fills in the error;
  // moves the cached entry on and tells the PI library. Returns the position after it. Throws
  // std::out_of_range when the batch has no offset for the handle.
  StatusIter markNotPending(EntryHandle handle, uint32_t errorCode, const std::string& message);
  // Rolls the batch back and throws P4RuntimeCriticalStateException when an element is pending
  // still.
  void maybeHandleTimedOut();

 private:
  struct Outcome;  // of one handle of the batch

  void settleWhole();
  void nameCulprits();
  void undoWhole();
  void awaitUndoing();
  bool allProgrammed() const;
  void settleAll();
  std::vector<Outcome> outcomes() const;
  void settleCompletedUpdates();
  void settleUpdate(std::span<Outcome> update);
  bool succeeds(std::span<const Outcome> update) const;
  bool isOpen(const Outcome& one) const;
  // The same entry may have been written at earlier offsets of the batch; they share its fate.
  // Returns how many elements have left the vector.
  ptrdiff_t settleEarlierOffsets(const BatchStatus::Offsets& offsets, uint32_t errorCode,
                                 const std::string& message);
  void settleEntry(EntryHandle handle, uint32_t errorCode);
  void tellPiLibrary(EntryHandle handle, uint32_t errorCode) const;
  void describeTimeouts();
  // The handle is one of the offset's; 0: it has none.
  void describeTimeout(BatchOffset offset, EntryHandle handle, p4::v1::Error& error) const;
  std::vector<EntryHandle> timedOutHandles() const;

  StatusVector& statusVector_;
  BatchStatus& batchStatus_;
  BatchEntries& entries_;
  const P4HandleMgr& handleMgr_;
  const DeviceServer* const server_;
  bool timedOut_ = false;  // a whole batch has
};

}  // namespace P4Runtime
