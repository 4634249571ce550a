// Failures that are reported before the entries are restored.
#include "P4Runtime/table/failures/EarlyReports.h"

#include <algorithm>

namespace P4Runtime {

Lattice::Report EarlyReports::Kept::report() const {
  Lattice::Report whole = given;
  whole.message = message;
  whole.subscriberName = subscriberName;
  return whole;
}

bool EarlyReports::keep(const Lattice::Report& report) {
  const Reporter reporter{report.entryHandle, report.subscriber};
  const auto known = kept_.find(reporter);
  if (known != kept_.end()) {
    if (report.sequence < known->second.given.sequence) return true;
    kept_.erase(known);
  }
  if (report.errorCode == 0) return true;
  if (kept_.size() == mostKept) return false;
  Kept& kept = kept_[reporter];
  kept = {report, std::string(report.message), std::string(report.subscriberName)};
  kept.given.message = {};
  kept.given.subscriberName = {};
  return true;
}

void EarlyReports::forgetOf(uint64_t subscriber) {
  std::erase_if(kept_, [&](const auto& kept) { return kept.first.second == subscriber; });
}

std::vector<EarlyReports::Kept> EarlyReports::end() {
  isOver_ = true;
  std::vector<Kept> reports;
  for (auto& [reporter, kept] : kept_) reports.push_back(std::move(kept));
  kept_.clear();
  std::ranges::sort(reports, {}, [](const Kept& kept) { return kept.given.sequence; });
  return reports;
}

}  // namespace P4Runtime
