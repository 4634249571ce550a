#include "P4Runtime/table/write/WritableTables.h"

#include <fmt/format.h>

#include "P4Runtime/table/rows/Refuse.h"

namespace P4Runtime {

WritableTable WritableTables::require(const ResourceId& rid) const {
  requireWritesAllowed();
  requireProgrammable(rid);
  return {.rid = rid,
          .widths = tableInfo_.fieldBitwidths(rid),
          .constructor = *tableInfo_.rowConstructor(rid),
          .interface = *tableInfo_.latticeTableInterface(rid),
          .needsPriority = tableInfo_.priorityNeeded(rid)};
}

void WritableTables::requireWritesAllowed() const {
  if (records_.isLetGo()) {
    refuse(ErrorCode::notReady, "the agent is disabled; write again once it is enabled");
  }
  if (batchStatus_.inProgress() && isCritical()) {
    refuse(ErrorCode::inconsistentState, "WRITE operation is not allowed due to critical state");
  }
  if (restore_.isNeeded() && !restore_.isRunning()) {
    refuse(ErrorCode::notReady,
           "the surviving entries have not been restored; call revertCriticalState, which restores "
           "them");
  }
}

void WritableTables::requireProgrammable(const ResourceId& rid) const {
  if (const std::string& why = tableInfo_.unprogrammable(rid); !why.empty()) {
    refuse(ErrorCode::cannotProgram,
           fmt::format("{} cannot be programmed: {}", tableInfo_.kindAndName(rid), why));
  }
  const auto& interface = tableInfo_.latticeTableInterface(rid);
  if (interface && !interface->ready()) {  // no word of the pipeline against the entry
    refuse(ErrorCode::notReady,
           fmt::format("the rows of {} are not ready; try again", tableInfo_.kindAndName(rid)));
  }
  if (!interface || !tableInfo_.rowConstructor(rid)) {
    refuse(ErrorCode::cannotProgram,
           fmt::format("{} is not part of the pipeline's device configuration; build the pipeline "
                       "file anew from its P4Info",
                       tableInfo_.kindAndName(rid)));
  }
}

bool WritableTables::isCritical() const {
  return systemStatus_ && (systemStatus_->critical() || systemStatus_->brokenInvariant());
}

void WritableTables::maybeCheckTableSizeLimit(const ResourceId& rid, EntryHandle handle) const {
  if (!sizeCheckEnabled_.value() || restore_.isRunning()) return;
  const uint32_t most = tableInfo_.maxTableSize(rid);
  if (most == 0) return;
  const auto& interface = tableInfo_.latticeTableInterface(rid);
  if (!interface || interface->rowCount() != most) return;  // above it: deliberately let through
  refuse(ErrorCode::tableFull, fmt::format("table id {} size limit reached", rid.id), handle);
}

}  // namespace P4Runtime
