// Rounds and slices. Only the store can fail here.
#include "forwarder/counters/FlowPublisher.h"

#include <algorithm>
#include <utility>

#include "platform/brine/Store.h"

namespace Forwarder {
namespace {

constexpr size_t sliceCounts = 1000;
constexpr std::chrono::seconds retryInterval{5};

std::string nameOf(const FlowBook::Change& change) {
  return change.counterId != 0 ? Lattice::cellCounterName(change.counterId, change.entryHandle)
                               : Lattice::flowCounterName(change.entryHandle);
}

}  // namespace

void FlowPublisher::work(Clock::time_point now, bool wanted) {
  if (round_.empty() && !maybeBeginRound(now, wanted)) return;
  doWriteSlice(now);
}

void FlowPublisher::publishAll(Clock::time_point now) {
  if (!trouble_.empty()) return;
  while (!round_.empty()) doWriteSlice(now);
  if (!trouble_.empty()) return;
  nextRound_ = now;
  do {
    work(now, true);
  } while (!round_.empty());
}

std::optional<FlowPublisher::Clock::time_point> FlowPublisher::nextDue() const {
  if (!round_.empty()) return Clock::time_point{};
  if (book_.empty()) return std::nullopt;
  return nextRound_;
}

bool FlowPublisher::maybeBeginRound(Clock::time_point now, bool wanted) {
  if (now < nextRound_) return false;
  nextRound_ = now + roundInterval;
  if (!wanted && !writer_) return false;  // a table with a counter may come
  if (!ensureWriter(now)) return false;   // tried again after a while
  round_ = book_.takeChanges();
  return !round_.empty();
}

// The new writer removes the counts that an earlier forwarder of this name has published.
bool FlowPublisher::ensureWriter(Clock::time_point now) {
  if (writer_ && !writer_->reachable()) {
    writer_.reset();
    lost_ = true;
  }
  if (writer_) return true;
  try {
    writer_ = Lattice::FlowCounterWriter::create(stateDirectory_, name_);
  } catch (const Brine::StoreError& error) {
    handleTrouble(error.what(), now);
    return false;
  }
  if (std::exchange(lost_, false)) republish_();
  return true;
}

void FlowPublisher::doWriteSlice(Clock::time_point now) {
  const size_t left = round_.size() - std::min(round_.size(), sliceCounts);
  try {
    for (size_t i = left; i < round_.size(); ++i) {
      const FlowBook::Change& change = round_[i];
      const std::string name = nameOf(change);
      if (change.deleted) {
        writer_->countDel(name);
      } else {
        writer_->countIs(name, {.bytes = change.bytes, .packets = change.packets});
      }
    }
    writer_->commit();
    publishedCount_ += round_.size() - left;
    round_.resize(left);
    trouble_.clear();
  } catch (const Brine::StoreError& error) {
    for (const FlowBook::Change& change : std::exchange(round_, {})) book_.putBack(change);
    handleTrouble(error.what(), now);
  }
}

void FlowPublisher::handleTrouble(const std::string& what, Clock::time_point now) {
  trouble_ = "counters are not published: " + what;
  nextRound_ = now + retryInterval;
}

}  // namespace Forwarder
