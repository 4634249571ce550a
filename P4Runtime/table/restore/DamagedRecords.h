// Records and rows that fail their checksum: names and lists them, and removes them or writes them
// again after a restart.
#pragma once

#include <string>
#include <vector>

#include "P4Runtime/table/restore/RestoreCounts.h"
#include "P4Runtime/table/restore/RestoreTools.h"

namespace P4Runtime {

// Call with the activity lock held; the tools outlive this.
class DamagedRecords {
 public:
  explicit DamagedRecords(const RestoreTools& tools) : tools_(tools) {}

  // Names the damaged records that were found since the last call, on standard error and in the
  // list of failures, with table and key as far as they can be told.
  std::vector<Brine::DamagedRecord> tell();
  // Tells of them, and removes all damaged records, also if tell() has told of them. Counts records
  // of entries, members and groups as unusable. A row that the restore has written again stays.
  void removeAll(RestoreCounts& counts);

 private:
  std::string text(const Brine::DamagedRecord& record) const;
  std::string rowText(const std::string& tableName, const std::string& key) const;
  EntryHandle lostEntry(const Brine::DamagedRecord& record) const;
  std::string recordText(const CacheKey& key) const;
  Vela::Ptr<Lattice::ArTableInterface> interfaceOf(const std::string& tableName) const;
  void removeRow(const Brine::DamagedRecord& record);

  const RestoreTools& tools_;
  std::vector<Brine::DamagedRecord> told_;  // and not removed
};

}  // namespace P4Runtime
