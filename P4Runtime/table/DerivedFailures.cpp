#include "P4Runtime/table/DerivedFailures.h"

#include <fmt/format.h>

#include <algorithm>

#include "platform/pollen/OutputTable.h"

namespace P4Runtime {

using Lattice::Report;

std::span<const Report> DerivedFailures::taken(std::span<const Report> reports) {
  const auto isDerived = [](const Report& report) {
    return Pollen::isDerivedHandle(report.entryHandle);
  };
  if (std::ranges::none_of(reports, isDerived)) return reports;
  others_.clear();
  std::vector<Report> failed;
  for (const Report& report : reports) {
    if (!isDerived(report)) {
      others_.push_back(report);
    } else if (report.errorCode != 0) {
      failed.push_back(report);
    } else if (!failing_.empty()) {
      mended(report.entryHandle);
    }
  }
  if (!failed.empty()) list(failed);
  return others_;
}

// Rows are looked for only as long as there is room in the list: it means a walk over all of them.
void DerivedFailures::list(const std::vector<Report>& failed) {
  std::vector<uint64_t> handles;
  for (const Report& report : failed) handles.push_back(report.entryHandle);
  std::vector<std::string> texts(handles.size());
  if (rowTexts_ && failures_->failedEntries() < EntryFailures::mostListed) {
    texts = rowTexts_(handles);
  }
  for (size_t i = 0; i < failed.size(); ++i) {
    const std::string row =
        texts[i].empty() ? "a row of a query, gone or not looked for" : texts[i];
    const std::string text =
        fmt::format("{}: error {} {}", row, failed[i].errorCode, failed[i].message);
    failing_[handles[i]] = 0;
    failures_->failureIs(handles[i], text);
    if (!texts[i].empty()) {
      fmt::print(stderr, "korvel: the forwarding plane could not program {}\n", text);
    }
  }
}

void DerivedFailures::rowRemoved(uint64_t handle, uint64_t sequence) {
  const auto found = failing_.find(handle);
  if (found != failing_.end()) found->second = sequence;
}

void DerivedFailures::inStepIs(uint64_t sequence) {
  std::vector<uint64_t> gone;
  for (const auto& [handle, removed] : failing_) {
    if (removed != 0 && removed <= sequence) gone.push_back(handle);
  }
  for (const uint64_t handle : gone) mended(handle);
}

void DerivedFailures::mended(uint64_t handle) {
  if (failing_.erase(handle) > 0) failures_->failureDel(handle);
}

}  // namespace P4Runtime
