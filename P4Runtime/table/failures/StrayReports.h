// Reports that no batch was waiting for: failures are kept until the entry is mended.
#pragma once

#include <optional>
#include <string>

#include "P4Runtime/table/failures/EntryFailures.h"
#include "P4Runtime/table/failures/EntryNames.h"
#include "platform/lattice/Database.h"

namespace P4Runtime {

// Call with the activity lock held; all that is handed in outlives this.
class StrayReports {
 public:
  StrayReports(const P4HandleMgr& handles, const EntryNames& names, EntryFailures& failures)
      : handles_(handles), names_(names), failures_(failures) {}

  void recordProgrammed(const Lattice::Report& report);
  // Lists the failure and says it on standard error. A report on a row, or a change of it, that
  // does not stand is counted only.
  void recordFailed(const Lattice::Report& report);
  // The entry was programmed or deleted: forgets its failures, also those under a former handle.
  void forgetMended(EntryHandle handle);

 private:
  std::optional<std::string> textOfFailed(const Lattice::Report& report) const;

  const P4HandleMgr& handles_;
  const EntryNames& names_;
  EntryFailures& failures_;
};

}  // namespace P4Runtime
