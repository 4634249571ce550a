// Gives the table entries that survived in the cache back to the handle manager, the tables and the
// PI library.
#pragma once

#include <string>
#include <vector>

#include "P4Runtime/table/records/CacheRecords.h"
#include "P4Runtime/table/restore/ConstantEntries.h"
#include "P4Runtime/table/restore/Obstacle.h"
#include "P4Runtime/table/restore/RestoreCounts.h"
#include "P4Runtime/table/restore/RestoreTools.h"
#include "PI/pi_base.h"
#include "PI/pi_meter.h"
#include "PI/pi_tables.h"

namespace P4Runtime {

// One pass over the table cache. Call with the activity lock held, while the caches are mounted.
class EntryRestorer {
 public:
  EntryRestorer(const RestoreTools& tools, ConstantEntries& constantEntries, uint64_t deviceId);

  // Adds to the counts. Records are removed, or become stable, once the pass is through.
  void restoreAll(RestoreCounts& counts);

 private:
  void restore(Brine::Bytes key, Brine::Bytes stored);
  void finishDeletion(Brine::Bytes key, const TableRecordView& record);
  void giveUp(Brine::Bytes key, const std::string& why);
  Obstacle restore(const TableRecordView& record);
  Obstacle bindHandle(const TableRecordView& record);
  void program(const TableRecordView& record);
  void removeRow(const TableRecordView& record);
  pi_status_t handBack(const TableRecordView& record);
  pi_status_t handBack(const TableRecordView& record, const pi_table_entry_t& entry);
  std::optional<pi_meter_spec_t> meter(const TableRecordView& record);
  void forget(const std::string& storedKey);
  void makeStable(const CacheKey& key);

  const RestoreTools& tools_;
  ConstantEntries& constantEntries_;
  const uint64_t deviceId_;
  const pi_p4info_t* p4info_;
  size_t restored_ = 0;
  std::vector<CacheKey> unstable_;
  std::vector<std::string> deleted_;   // stored keys
  std::vector<std::string> unusable_;  // stored keys
  std::vector<std::string> reasons_;   // for each of them
  EntryHandle bound_ = 0;              // to the record being restored; 0: none
};

}  // namespace P4Runtime
