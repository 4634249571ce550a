// Which tables may be written now, and how far they may fill.
#pragma once

#include "P4Runtime/companion/BatchStatus.h"
#include "P4Runtime/companion/P4RtSystemConfig.h"
#include "P4Runtime/pipeline/P4TableInfo.h"
#include "P4Runtime/table/records/EntryRecords.h"
#include "P4Runtime/table/rows/WritableTable.h"
#include "P4Runtime/table/write/RestoreMode.h"

namespace P4Runtime {

// Call with the activity lock held; all that is handed in outlives this.
class WritableTables {
 public:
  // `systemStatus` may be null: the switch is then never critical.
  WritableTables(const P4TableInfo& tableInfo, const EntryRecords& records,
                 const RestoreMode& restore, const BatchStatus& batchStatus,
                 const P4RuntimeConfig::P4RtSystemStatus* systemStatus,
                 const Vela::Attribute<bool>& sizeCheckEnabled)
      : tableInfo_(tableInfo),
        records_(records),
        restore_(restore),
        batchStatus_(batchStatus),
        systemStatus_(systemStatus),
        sizeCheckEnabled_(sizeCheckEnabled) {}

  // Refuses while the agent is disabled, in a batch of a critical switch, before a restore that is
  // needed, and a table that the pipeline cannot program (now).
  WritableTable require(const ResourceId& rid) const;
  // Refuses a new entry of a table that holds exactly as many rows as the P4Info says.
  void maybeCheckTableSizeLimit(const ResourceId& rid, EntryHandle handle) const;
  bool isCritical() const;

 private:
  void requireWritesAllowed() const;
  void requireProgrammable(const ResourceId& rid) const;

  const P4TableInfo& tableInfo_;
  const EntryRecords& records_;
  const RestoreMode& restore_;
  const BatchStatus& batchStatus_;
  const P4RuntimeConfig::P4RtSystemStatus* const systemStatus_;
  const Vela::Attribute<bool>& sizeCheckEnabled_;
};

}  // namespace P4Runtime
