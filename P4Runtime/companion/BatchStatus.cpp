#include "P4Runtime/companion/BatchStatus.h"

#include <unistd.h>

#include <absl/container/flat_hash_set.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "platform/scrivel/Trace.h"
#include "platform/vela/ActivityLock.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("BatchStatus");

const char* messageFor(uint16_t errorCode) {
  switch (static_cast<ErrorCode>(errorCode)) {
    case ErrorCode::none:
      return "";
    case ErrorCode::outOfResources:
    case ErrorCode::tableFull:
      return "the forwarding plane has no room for the entry";
    case ErrorCode::notReady:
      return "the forwarding plane is not ready; try again";
    case ErrorCode::unsupportedFeature:
    case ErrorCode::cannotProgram:
      return "the forwarding plane cannot program such an entry";
    case ErrorCode::invalidKey:
    case ErrorCode::invalidAction:
    case ErrorCode::invalidReference:
    case ErrorCode::invalidArgument:
      return "the forwarding plane found the entry invalid";
    case ErrorCode::alreadyExists:
      return "the forwarding plane has such an entry already";
    default:
      return "the forwarding plane failed to program the entry";
  }
}

}  // namespace

void BatchStatusEntry::setErrorMessage() {
  if (errorMessage_.empty()) errorMessage_ = messageFor(errorCode_);
}

BatchStatus::BatchStatus(std::string name, Lattice::Database* database)
    : Entity(std::move(name)), database_(database) {}

void BatchStatus::forwardingAgentsAre(size_t count, std::chrono::milliseconds grace) {
  const std::lock_guard guard(agentsMutex_);
  forwardingAgents_ = count;
  graceEnd_ = std::chrono::steady_clock::now() + grace;
  agentsChange_.notify_all();
}

bool BatchStatus::awaitForwardingAgent() {
  if (pretendHwProgramming() || anyForwardingAgent()) return true;
  {
    const Vela::ActivityLockReleased released;
    std::unique_lock guard(agentsMutex_);
    const auto end = graceEnd_;
    agentsChange_.wait_until(guard, end, [this] { return forwardingAgents_ > 0; });
  }
  return anyForwardingAgent();
}

bool BatchStatus::anyForwardingAgent() {
  const std::lock_guard guard(agentsMutex_);
  return forwardingAgents_ > 0;
}

void BatchStatus::onBatchBegin() {
  cleanUpBatchState();
  if (database_) database_->batchBegin();
  inProgressIs(true);
}

void BatchStatus::onBatchSettled() { inProgressIs(false); }

void BatchStatus::onBatchEnd() {
  if (!database_ || !database_->inBatch()) return;
  const Vela::Outcome stored = database_->batchEnd();
  if (!stored.ok()) failAll(stored.reason());
}

// The state directory took nothing of the batch: each of its updates has failed.
void BatchStatus::failAll(const std::string& reason) {
  SCRIVEL_TRACE(0, "onBatchEnd", " cannot store the batch: ", reason);
  for (const EntryHandle handle : handles_) {
    const BatchStatusEntry failed(handle, static_cast<uint16_t>(ErrorCode::outOfResources), reason);
    if (pending_.contains(handle)) {
      completedTransactionStatusIs(failed);
    } else if (const auto done = completed_.find(handle); done != completed_.end()) {
      done->second = failed;  // it needed no word of the forwarding plane, but had to be stored
    }
  }
}

void BatchStatus::onBatchUpdateComplete() {
  SCRIVEL_TRACE(5, "onBatchUpdateComplete", " pending: ", pending_.size());
}

void BatchStatus::onBatchRollback() {
  const std::vector<EntryHandle> unfinished = unfinishedUpdates();
  pending_.clear();
  if (!rollBack_) return;
  std::for_each(unfinished.rbegin(), unfinished.rend(), rollBack_);
}

// The handles of every offset that has one pending, as they were written.
std::vector<EntryHandle> BatchStatus::unfinishedUpdates() const {
  absl::flat_hash_set<BatchOffset> offsets;
  for (const auto& [handle, sequence] : pending_) {
    const auto found = handleToOffsets_.find(handle);
    if (found != handleToOffsets_.end()) offsets.insert(found->second.begin(), found->second.end());
  }
  const auto isUnfinished = [&](EntryHandle handle) {
    const Offsets& own = handleToOffsets_.at(handle);
    return std::any_of(own.begin(), own.end(),
                       [&](BatchOffset offset) { return offsets.contains(offset); });
  };
  std::vector<EntryHandle> unfinished;
  std::copy_if(handles_.begin(), handles_.end(), std::back_inserter(unfinished), isUnfinished);
  return unfinished;
}

void BatchStatus::onBatchConfirmed() {
  if (database_) database_->commitSoon();
}

void BatchStatus::cleanUpBatchState() {
  {
    // Counts still on their way to the descriptor belong to the batch before.
    const std::lock_guard guard(notifyMutex_);
    ++batch_;
    uint64_t left = 0;
    if (notifyFd() >= 0) [[maybe_unused]]
      const auto drained = read(notifyFd(), &left, sizeof left);
  }
  handles_.clear();
  handleToOffsets_.clear();
  offsetToHandle_.clear();
  pending_.clear();
  completed_.clear();
  baseline_ = 0;
}

void BatchStatus::newEntryHandleForBatchOffset(EntryHandle handle, BatchOffset offset) {
  const auto [found, isNew] = handleToOffsets_.try_emplace(handle);
  if (isNew) handles_.push_back(handle);
  Offsets& offsets = found->second;
  if (std::find(offsets.begin(), offsets.end(), offset) == offsets.end()) offsets.push_back(offset);
  offsetToHandle_[offset] = handle;
}

void BatchStatus::pendingOperationIs(EntryHandle handle, uint64_t sequence) {
  pending_[handle] = sequence;
  completed_.erase(handle);
}

void BatchStatus::completedTransactionStatusIs(BatchStatusEntry entry) {
  const EntryHandle handle = entry.entryHandle();
  if (pending_.erase(handle) == 0) ++baseline_;
  completed_.insert_or_assign(handle, std::move(entry));
  notify(1);
}

void BatchStatus::pretendSilence(EntryHandle handle) {
  if (completed_.erase(handle) > 0) ++baseline_;  // its count is on the way
  pending_[handle] = UINT64_MAX;
}

void BatchStatus::reportsAre(std::span<const Lattice::Report> reports) {
  uint64_t accepted = 0;
  uint64_t dropped = 0;
  for (const Lattice::Report& report : reports) {
    if (accept(report)) {
      ++accepted;
    } else if (report.settles) {
      ++dropped;
    }
  }
  reportsAcceptedIs(reportsAccepted() + accepted);
  reportsDroppedIs(reportsDropped() + dropped);
  if (accepted > 0) notify(accepted);
}

bool BatchStatus::accept(const Lattice::Report& report) {
  const auto found = pending_.find(report.entryHandle);
  if (found == pending_.end() || found->second != report.sequence || !report.settles) {
    SCRIVEL_TRACE(5, "stray report", " entryHandle: ", report.entryHandle,
                  " sequence: ", report.sequence, " errorCode: ", report.errorCode);
    if (strayReport_) strayReport_(report);
    return false;
  }
  pending_.erase(found);
  BatchStatusEntry entry(report.entryHandle, report.errorCode, std::string(report.message));
  entry.setErrorMessage();
  completed_.insert_or_assign(report.entryHandle, std::move(entry));
  return true;
}

// Followers that are in step have programmed even changes without a report, such as deletions.
void BatchStatus::inStepIs(uint64_t sequence) {
  uint64_t completed = 0;
  for (auto next = pending_.begin(); next != pending_.end();) {
    if (next->second > sequence) {
      ++next;
      continue;
    }
    completed_.insert_or_assign(next->first, BatchStatusEntry(next->first, 0));
    pending_.erase(next++);
    ++completed;
  }
  if (completed > 0) notify(completed);
}

uint64_t BatchStatus::completedOperationBaseline() { return std::exchange(baseline_, 0); }

// Written once the lock is free, since the thread that wakes needs it at once.
void BatchStatus::notify(uint64_t count) {
  if (notifyFd() < 0) return;
  auto work = [this, alive = Vela::Ptr<BatchStatus>(this), batch = batch_, count] {
    const std::lock_guard guard(notifyMutex_);
    if (batch != batch_) return;
    if (write(notifyFd(), &count, sizeof count) != sizeof count) {
      SCRIVEL_TRACE(0, "BatchStatus", " cannot write the notification descriptor");
    }
  };
  Vela::ActivityLock::afterRelease(std::move(work));
}

}  // namespace P4Runtime
