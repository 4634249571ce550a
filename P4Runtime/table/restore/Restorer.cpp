#include "P4Runtime/table/restore/Restorer.h"

#include <fmt/format.h>

#include <cstdio>
#include <stdexcept>

#include "P4Runtime/table/restore/EntryRestorer.h"
#include "P4Runtime/table/restore/OrphanedRows.h"
#include "P4Runtime/table/restore/ProfileRestorer.h"

namespace P4Runtime {

void Restorer::restoreAll(uint64_t deviceId) {
  // Without its tables every record would look unusable.
  if (tools_.tableInfo.tableInfoState() != P4TableInfoState::tableInfoReady) {
    throw std::runtime_error("the pipeline is not ready");
  }
  // Without the records every row would look like one that no entry stands for.
  if (tools_.records.isLetGo()) throw std::runtime_error("the agent is disabled");
  restored_ = {};
  constantEntries_.followPipeline();
  tools_.undo.commitOrThrow();  // the passes below read committed records
  restoreMembers(deviceId);
  restoreGroups(deviceId);
  restoreEntries(deviceId);
  removeWhatDoesNotFit();
  tools_.mode.rewriteDelAll();
  tools_.failures.notRestoredAre(restored_.unusable);
  if (restored_ != RestoreCounts{}) fmt::print(stderr, "{}", toText(restored_));
}

void Restorer::removeWhatDoesNotFit() {
  damaged_.removeAll(restored_);
  restored_.rows = removeOrphanedRows(tools_);
  damaged_.removeAll(restored_);  // rows that only a look at all of them has found
}

void Restorer::restoreMembers(uint64_t deviceId) {
  if (!tools_.records.isMounted()) return;
  const RestoreMode::Running running(tools_.mode);
  ProfileRestorer(tools_, deviceId).restoreMembers(restored_);
}

void Restorer::restoreGroups(uint64_t deviceId) {
  if (!tools_.records.isMounted()) return;
  const RestoreMode::Running running(tools_.mode);
  ProfileRestorer(tools_, deviceId).restoreGroups(restored_);
}

void Restorer::restoreEntries(uint64_t deviceId) {
  if (!tools_.records.isMounted()) return;
  const RestoreMode::Running running(tools_.mode);
  EntryRestorer(tools_, constantEntries_, deviceId).restoreAll(restored_);
}

}  // namespace P4Runtime
