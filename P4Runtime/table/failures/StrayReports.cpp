#include "P4Runtime/table/failures/StrayReports.h"

#include "P4Runtime/table/failures/FailureText.h"

namespace P4Runtime {

void StrayReports::recordProgrammed(const Lattice::Report& report) {
  if (!failures_.empty()) {
    failures_.programmedIs(report.entryHandle, report.subscriber, report.sequence);
  }
  if (report.settles) failures_.removedIs(report.entryHandle, report.sequence);
}

void StrayReports::recordFailed(const Lattice::Report& report) {
  const auto entry = textOfFailed(report);
  if (!entry) return failures_.countReportOnNoRow();
  const std::string text = *entry + failureText(report);
  if (failures_.failureIs(report.entryHandle, report.subscriber, report.sequence, text)) {
    sayNotProgrammed(text);
  }
}

// Nothing for a change that does not stand (any more), or never was.
std::optional<std::string> StrayReports::textOfFailed(const Lattice::Report& report) const {
  const EntryHandle handle = report.entryHandle;
  if (handles_.entryHandleToResourceIdHas(handle)) {
    if (names_.rowSequence(handle) != report.sequence) return std::nullopt;
    return names_.text(handle);
  }
  const EntryFailures::Undone* undone = failures_.undone(handle);
  if (!undone || undone->sequence != report.sequence) return std::nullopt;
  return undone->text + " (taken back, but not removed)";
}

void StrayReports::forgetMended(EntryHandle handle) {
  if (failures_.empty()) return;
  failures_.failureDel(handle);
  const bool isEntry = handles_.entryHandleToResourceId(handle).type == tableResource;
  if (isEntry && failures_.anyUnremoved()) failures_.programmedIs(names_.text(handle));
}

}  // namespace P4Runtime
