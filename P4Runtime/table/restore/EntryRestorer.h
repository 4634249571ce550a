// Gives the table entries that survived in their rows back to the handle manager, the tables and
// the PI library.
#pragma once

#include <set>
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

// One pass over the rows of all tables. Call with the activity lock held, while the caches are
// mounted.
class EntryRestorer {
 public:
  EntryRestorer(const RestoreTools& tools, ConstantEntries& constantEntries, uint64_t deviceId);

  // Adds to the counts. Rows are written, and entries removed, once all tables were looked through.
  void restoreAll(RestoreCounts& counts);

 private:
  // An entry whose row is not the one that its record makes, or that is to be removed.
  struct Entry {
    ResourceId rid;
    std::string rowKey;  // of the stored row; empty without one
    TableCacheEntry record;
  };

  void letHandlesGo();
  void restoreTable(const ResourceId& rid, const Lattice::ArTableInterface& interface);
  void restoreKept(const ResourceId& rid, const std::string& tableName);
  void restore(const TableRecordView& record, const Lattice::StoredRow* row);
  Obstacle restoreBound(const TableRecordView& record, const Lattice::StoredRow* row);
  Obstacle bindHandle(const TableRecordView& record);
  bool isAsItShouldBe(const TableRecordView& record, const Lattice::Row& made,
                      const Lattice::StoredRow& row) const;
  void giveUp(const TableRecordView& record, const Lattice::StoredRow* row, const std::string& why);
  void rewrite(const Entry& entry);
  void remove(const Entry& entry);
  void letKeptGo();
  pi_status_t handBack(const TableRecordView& record, const Lattice::StoredRow* row);
  pi_status_t handBack(const TableRecordView& record, const pi_table_entry_t& entry);
  std::optional<pi_meter_spec_t> meter(const TableRecordView& record,
                                       const Lattice::StoredRow* row) const;

  const RestoreTools& tools_;
  ConstantEntries& constantEntries_;
  const uint64_t deviceId_;
  const pi_p4info_t* p4info_;
  size_t restored_ = 0;
  std::vector<Entry> rewritten_;
  std::vector<Entry> unusable_;
  std::vector<std::string> reasons_;  // why entries are unusable
  std::set<std::string> known_;       // tables whose kept records were restored
  EntryHandle bound_ = 0;             // to the record being restored; 0: none
};

}  // namespace P4Runtime
