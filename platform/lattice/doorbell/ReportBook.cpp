#include "platform/lattice/doorbell/ReportBook.h"

#include <algorithm>

namespace Lattice {
namespace {

// A subscriber that never reports must not make this grow without end; beyond it the oldest
// changes pass as they come.
constexpr size_t maxOpen = 1'000'000;

}  // namespace

void ReportBook::expect(std::span<const CommittedChange> changes, Subscribers subscribers) {
  for (const CommittedChange& change : changes) {
    open_.push_back({change.sequence, change.entryHandle, subscribers, 0, false});
  }
  while (open_.size() > maxOpen) open_.pop_front();
}

bool ReportBook::settles(Subscribers subscriber, const Report& report) {
  const auto found = std::ranges::lower_bound(open_, report.sequence, {}, &Open::sequence);
  if (found == open_.end() || found->sequence != report.sequence ||
      found->entryHandle != report.entryHandle) {
    return true;
  }
  const bool isFailure = report.errorCode != 0;
  if ((found->owed & subscriber) == 0) return isFailure;
  found->owed &= ~subscriber;
  found->reported |= subscriber;
  found->failed |= isFailure;
  const bool settled = isFailure || (found->owed == 0 && !found->failed);
  popSettled();
  return settled;
}

std::vector<Report> ReportBook::release(Subscribers subscriber, uint64_t sequence) {
  return drop(subscriber, sequence, true);
}

std::vector<Report> ReportBook::remove(Subscribers subscriber) {
  return drop(subscriber, UINT64_MAX, false);
}

std::vector<Report> ReportBook::drop(Subscribers subscriber, uint64_t sequence, bool counts) {
  std::vector<Report> settled;
  for (Open& open : open_) {
    if (open.sequence > sequence) break;
    if ((open.owed & subscriber) == 0) continue;
    open.owed &= ~subscriber;
    if (counts) open.reported |= subscriber;
    if (open.owed == 0 && open.reported != 0 && !open.failed) {
      settled.push_back({open.entryHandle, open.sequence, 0, {}});
    }
  }
  popSettled();
  return settled;
}

void ReportBook::popSettled() {
  while (!open_.empty() && open_.front().owed == 0) open_.pop_front();
}

}  // namespace Lattice
