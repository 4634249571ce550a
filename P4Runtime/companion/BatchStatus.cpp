#include "P4Runtime/companion/BatchStatus.h"

#include <unistd.h>

#include <absl/container/flat_hash_set.h>

#include <algorithm>
#include <utility>

#include "platform/scrivel/Trace.h"
#include "platform/vela/ActivityLock.h"

namespace P4Runtime {

using Progress = BatchStatus::Written::Progress;

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

bool BatchStatus::appliesAtOnce() const {
  if (!database_) return false;
  const std::vector<Lattice::SubscriberInfo> agents = database_->subscribers();
  return !agents.empty() && std::ranges::all_of(agents, &Lattice::SubscriberInfo::appliesAtOnce);
}

void BatchStatus::onBatchBegin(bool isUrgent, bool isWhole) {
  cleanUpBatchState();
  isUrgent_ = isUrgent;
  isWhole_ = isWhole;
  if (database_) {
    database_->batchBegin();
    database_->urgentIs(isUrgent);
  }
  inProgressIs(true);
}

void BatchStatus::showAhead() {
  if (database_ && isUrgent_ && !isWhole_) database_->showAhead();
}

void BatchStatus::onBatchSettled() {
  if (database_) {
    database_->stopListening();
    database_->settle();
  }
  inProgressIs(false);
}

void BatchStatus::lookForReports() {
  if (!database_ || !isUrgent_) return;
  {
    const Vela::ActivityLockReleased released;
    database_->lookForProgrammed();
  }
  database_->stopListening();
}

void BatchStatus::onBatchEnd() {
  if (!database_ || !database_->inBatch()) return;
  if (isUrgent_) database_->listen();
  const Vela::Outcome stored = database_->batchEnd();
  if (!stored.ok()) failAll(stored.reason());
}

// Even an update has failed that needed no word of the forwarding plane.
void BatchStatus::failAll(const std::string& reason) {
  SCRIVEL_TRACE(0, "onBatchEnd", " cannot store the batch: ", reason);
  for (auto& [handle, one] : written_) {
    const BatchStatusEntry failed(handle, static_cast<uint16_t>(ErrorCode::outOfResources), reason);
    if (one.progress == Progress::pending) {
      completedTransactionStatusIs(failed);
    } else if (one.progress == Progress::completed) {
      completedIs(one, failed);
    }
  }
}

void BatchStatus::onBatchUpdateComplete() {
  SCRIVEL_TRACE(5, "onBatchUpdateComplete", " pending: ", pendingCount_);
}

void BatchStatus::onBatchRollback() {
  const std::vector<EntryHandle> unfinished = unfinishedUpdates();
  pendingOperationDelAll();
  if (!rollBack_) return;
  std::for_each(unfinished.rbegin(), unfinished.rend(), rollBack_);
}

// The handles of every offset that has one pending, as they were written.
std::vector<EntryHandle> BatchStatus::unfinishedUpdates() const {
  absl::flat_hash_set<BatchOffset> offsets;
  for (const auto& [handle, one] : written_) {
    if (one.progress != Progress::pending) continue;
    const Offsets own = offsetsOf(handle);
    offsets.insert(own.begin(), own.end());
  }
  std::vector<EntryHandle> unfinished;
  for (const auto& [handle, one] : written_) {
    const Offsets own = offsetsOf(handle);
    const bool isUnfinished = std::any_of(
        own.begin(), own.end(), [&](BatchOffset offset) { return offsets.contains(offset); });
    if (isUnfinished) unfinished.push_back(handle);
  }
  return unfinished;
}

void BatchStatus::undoingIs(uint64_t sequence) {
  undoingFailed_ = false;
  pendingOperationIs(undoing, sequence);
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
  written_.clear();
  earlier_.clear();
  failures_.clear();
  pendingCount_ = completedCount_ = firstPending_ = 0;
  inOrder_ = true;
  baseline_ = 0;
}

void BatchStatus::newEntryHandleForBatchOffset(EntryHandle handle, BatchOffset offset) {
  Written& one = written_.add(handle).first.value;
  if (one.hasOffset && one.lastOffset == offset) return;
  if (one.hasOffset) {
    earlier_.push_back({one.lastOffset, one.earlier});
    one.earlier = static_cast<uint32_t>(earlier_.size());
  }
  one.hasOffset = true;
  one.lastOffset = offset;
}

BatchStatus::Offsets BatchStatus::offsetsOf(EntryHandle handle) const {
  Offsets offsets;
  const auto* item = written_.find(handle);
  if (!item || !item->value.hasOffset) return offsets;
  offsets.push_back(item->value.lastOffset);
  for (uint32_t next = item->value.earlier; next != 0; next = earlier_[next - 1].earlier) {
    offsets.push_back(earlier_[next - 1].offset);
  }
  std::reverse(offsets.begin(), offsets.end());
  return offsets;
}

void BatchStatus::progressIs(Written& one, Progress progress) {
  if (one.progress == Progress::pending) --pendingCount_;
  if (one.progress == Progress::completed) --completedCount_;
  one.progress = progress;
  if (progress == Progress::pending) ++pendingCount_;
  if (progress == Progress::completed) ++completedCount_;
}

void BatchStatus::pendingOperationIs(EntryHandle handle, uint64_t sequence) {
  auto& item = written_.add(handle).first;
  const size_t position = written_.positionOf(item);
  inOrder_ = inOrder_ && position == written_.size() - 1 &&
             (position == 0 || written_[position - 1].value.sequence < sequence);
  item.value.sequence = sequence;
  progressIs(item.value, Progress::pending);
  firstPending_ = std::min(firstPending_, position);
}

void BatchStatus::pendingOperationDel(EntryHandle handle) {
  auto* item = written_.find(handle);
  if (item && item->value.progress == Progress::pending) progressIs(item->value, Progress::none);
}

void BatchStatus::pendingOperationDelAll() {
  if (pendingCount_ == 0) return;
  for (auto& [handle, one] : written_) {
    if (one.progress == Progress::pending) progressIs(one, Progress::none);
  }
}

void BatchStatus::completedTransactionStatusIs(BatchStatusEntry entry) {
  Written& one = written_.add(entry.entryHandle()).first.value;
  if (one.progress != Progress::pending) ++baseline_;
  completedIs(one, std::move(entry));
  notify(1);
}

void BatchStatus::completedIs(Written& one, BatchStatusEntry entry) {
  progressIs(one, Progress::completed);
  one.failure = 0;
  if (entry.errorCode() == 0) return;
  failures_.push_back(std::move(entry));
  one.failure = static_cast<uint32_t>(failures_.size());
}

std::optional<BatchStatusEntry> BatchStatus::completedTransactionStatus(EntryHandle handle) const {
  const auto* item = written_.find(handle);
  if (!item || item->value.progress != Progress::completed) return std::nullopt;
  if (item->value.failure == 0) return BatchStatusEntry(handle, 0);
  return failures_[item->value.failure - 1];
}

void BatchStatus::pretendSilence(EntryHandle handle) {
  auto& item = written_.add(handle).first;
  if (item.value.progress == Progress::completed) ++baseline_;  // its count is on the way
  pendingOperationIs(handle, UINT64_MAX);
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
  auto* item = written_.find(report.entryHandle);
  const bool isAwaited = item && item->value.progress == Progress::pending &&
                         item->value.sequence == report.sequence && report.settles;
  if (!isAwaited) {
    SCRIVEL_TRACE(5, "stray report", " entryHandle: ", report.entryHandle,
                  " sequence: ", report.sequence, " errorCode: ", report.errorCode);
    undoingFailed_ |= report.errorCode != 0 && pendingOperationHas(undoing);
    if (strayReport_) strayReport_(report);
    return false;
  }
  BatchStatusEntry entry(report.entryHandle, report.errorCode, std::string(report.message));
  entry.setErrorMessage();
  completedIs(item->value, std::move(entry));
  return true;
}

// Followers that are in step have programmed even changes without a report, such as deletions.
void BatchStatus::inStepIs(uint64_t sequence) { completeUpTo(sequence); }

void BatchStatus::programmedIs(uint64_t sequence) {
  reportsAcceptedIs(reportsAccepted() + completeUpTo(sequence));
}

// Returns how many operations that completes.
uint64_t BatchStatus::completeUpTo(uint64_t sequence) {
  uint64_t completed = 0;
  size_t firstLeft = written_.size();
  for (size_t i = firstPending_; i < written_.size() && pendingCount_ > 0; ++i) {
    Written& one = written_[i].value;
    if (one.progress != Progress::pending) continue;
    if (one.sequence <= sequence) {
      one.failure = 0;
      progressIs(one, Progress::completed);
      ++completed;
    } else {
      firstLeft = std::min(firstLeft, i);
      if (inOrder_) break;
    }
  }
  firstPending_ = firstLeft;
  if (completed > 0) notify(completed);
  return completed;
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
