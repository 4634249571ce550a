#include "P4Runtime/table/failures/DerivedFailures.h"

#include <algorithm>

#include "P4Runtime/table/failures/FailureText.h"
#include "platform/pollen/engine/OutputTable.h"

namespace P4Runtime {

using Lattice::Report;

std::span<const Report> DerivedFailures::takeDerived(std::span<const Report> reports,
                                                     uint64_t lastSequence) {
  const auto isDerived = [](const Report& report) {
    return Pollen::isDerivedHandle(report.entryHandle);
  };
  if (std::ranges::none_of(reports, isDerived)) return reports;
  others_.clear();
  for (const Report& report : reports) {
    if (!isDerived(report)) {
      others_.push_back(report);
    } else if (report.sequence > lastSequence) {
      failures_->countReportOnNoRow();
    } else {
      report.errorCode != 0 ? recordFailed(report) : recordProgrammed(report);
    }
  }
  return others_;
}

void DerivedFailures::recordFailed(const Report& report) {
  const std::pair of(report.entryHandle, report.subscriber);
  if (unlisted_.size() == mostUnlisted && !unlisted_.contains(of)) return;
  Unlisted& one = unlisted_[of];
  if (report.sequence >= one.sequence) one = {report.sequence, failureText(report)};
}

void DerivedFailures::recordProgrammed(const Report& report) {
  const auto waiting = unlisted_.find({report.entryHandle, report.subscriber});
  if (waiting != unlisted_.end() && report.sequence >= waiting->second.sequence) {
    unlisted_.erase(waiting);
  }
  if (failing_.empty()) return;
  failures_->programmedIs(report.entryHandle, report.subscriber, report.sequence);
  if (!failures_->isFailing(report.entryHandle)) failing_.erase(report.entryHandle);
}

// One walk over the rows for all reports that have come.
void DerivedFailures::list() {
  if (unlisted_.empty()) return;
  const auto unlisted = std::exchange(unlisted_, {});
  std::vector<uint64_t> handles;
  for (const auto& [of, one] : unlisted) {
    if (handles.empty() || handles.back() != of.first) handles.push_back(of.first);
  }
  const auto texts = rowTexts_ ? rowTexts_(handles) : std::vector<std::string>(handles.size());
  size_t at = 0;
  for (const auto& [of, one] : unlisted) {
    const auto [handle, agent] = of;
    if (handles[at] != handle) ++at;
    if (texts[at].empty()) {
      failures_->countReportOnNoRow();
      continue;
    }
    failing_[handle] = 0;
    const std::string text = texts[at] + one.text;
    if (failures_->failureIs(handle, agent, one.sequence, text)) sayNotProgrammed(text);
  }
}

void DerivedFailures::noteRemovedRow(uint64_t handle, uint64_t sequence) {
  const auto found = failing_.find(handle);
  if (found != failing_.end()) found->second = sequence;
}

void DerivedFailures::inStepIs(uint64_t sequence) {
  for (auto next = failing_.begin(); next != failing_.end();) {
    const auto [handle, removed] = *next;
    const bool gone = removed != 0 && removed <= sequence;
    if (gone) failures_->failureDel(handle);
    next = gone ? failing_.erase(next) : std::next(next);
  }
}

void DerivedFailures::agentDel(uint64_t agent) {
  std::erase_if(unlisted_, [agent](const auto& one) { return one.first.second == agent; });
  std::erase_if(failing_, [this](const auto& one) { return !failures_->isFailing(one.first); });
}

}  // namespace P4Runtime
