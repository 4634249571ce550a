// A report passes straight through unless a latency or an earlier report holds it up.
#include "forwarder/follow/ReportQueue.h"

#include <algorithm>
#include <utility>

namespace Forwarder {

void ReportQueue::report(uint64_t entryHandle, uint64_t sequence, uint16_t errorCode,
                         std::string message) {
  if (silent_) {
    ++dropped_;
    return;
  }
  if (subscriber_ && latency_.count() == 0 && waiting_.empty()) {
    subscriber_->report(entryHandle, sequence, errorCode, message);
    ++sent_;
    return;
  }
  Clock::time_point due = now_() + latency_;
  if (!waiting_.empty()) due = std::max(due, waiting_.back().due);
  waiting_.push_back({due, entryHandle, sequence, errorCode, std::move(message)});
}

void ReportQueue::sendDue() {
  if (!subscriber_ || waiting_.empty()) return;
  const Clock::time_point now = now_();
  const uint64_t before = sent_;
  for (; !waiting_.empty() && waiting_.front().due <= now; waiting_.pop_front(), ++sent_) {
    const Waiting& next = waiting_.front();
    subscriber_->report(next.entryHandle, next.sequence, next.errorCode, next.message);
  }
  if (sent_ != before) subscriber_->flush();
}

std::optional<ReportQueue::Clock::time_point> ReportQueue::nextDue() const {
  if (!subscriber_ || waiting_.empty()) return std::nullopt;
  return waiting_.front().due;
}

}  // namespace Forwarder
