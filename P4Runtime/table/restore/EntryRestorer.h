// Gives the table entries that survived in their rows back to the handle manager, the tables and
// the PI library.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "P4Runtime/table/records/CacheRecords.h"
#include "P4Runtime/table/restore/ConstantEntries.h"
#include "P4Runtime/table/restore/Obstacle.h"
#include "P4Runtime/table/restore/OrphanedRows.h"
#include "P4Runtime/table/restore/RestoreCounts.h"
#include "P4Runtime/table/restore/RestoreSlice.h"
#include "P4Runtime/table/restore/RestoreTools.h"
#include "PI/pi_base.h"
#include "PI/pi_meter.h"
#include "PI/pi_tables.h"

namespace P4Runtime {

// One pass over the rows of all tables, in slices. Call with the activity lock held, while the
// caches are mounted. Nobody else writes rows until the pass is through. A pass that is given up
// has removed nothing; another one finds every entry there.
class EntryRestorer {
 public:
  // Finds the tables: throws std::runtime_error when the rows of one are not ready.
  // Leaves out the tables with ids in `standing`, whose handles stay as well.
  EntryRestorer(const RestoreTools& tools, ConstantEntries& constantEntries, uint64_t deviceId,
                std::vector<uint32_t> standing);

  // In this order; the first two return false while there is more of it to do in later slices.
  // Rows are written, and entries removed, once all tables were looked through.
  bool restore(RestoreSlice& slice);
  bool rewrite(RestoreSlice& slice);
  void finish(RestoreCounts& counts);  // adds to them

  // Rows without a record: no entry stands for them, unless one has been given such a row since.
  const std::vector<RowWithoutEntry>& bareRows() const { return bareRows_; }
  RestoreProgress progress() const { return {looked_, all_}; }

 private:
  struct Table {
    ResourceId rid;
    Vela::Ptr<Lattice::ArTableInterface> interface;
  };
  // An entry whose row is not the one that its record makes. There may be as many as entries.
  struct Rewritten {
    ResourceId rid;
    EntryHandle handle = 0;
    std::string rowKey;  // of the stored row; empty without one
    std::string record;  // its bytes
  };
  // An entry that is to be removed.
  struct Entry {
    ResourceId rid;
    std::string rowKey;  // of the stored row; empty without one
    TableCacheEntry record;
  };

  void findTables();
  void letHandlesGo();
  bool restoreTable(const Table& table, RestoreSlice& slice);
  void restoreRow(const Table& table, const Lattice::StoredRow& row);
  bool restoreKept(const Table& table, RestoreSlice& slice);
  bool maybeTakeAsItStands(const TableRecordView& record, const Lattice::StoredRow& row);
  void restore(const TableRecordView& record, const Lattice::StoredRow* row);
  Obstacle restoreBound(const TableRecordView& record, const Lattice::StoredRow* row);
  Obstacle bindHandle(const TableRecordView& record);
  bool isAsItShouldBe(const TableRecordView& record, const Lattice::Row& made,
                      const Lattice::StoredRow& row) const;
  void giveUp(const TableRecordView& record, const Lattice::StoredRow* row, const std::string& why);
  void rewrite(const Rewritten& entry);
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
  const std::vector<uint32_t> standing_;
  std::vector<Table> tables_;
  // Where the pass stands.
  size_t table_ = 0;
  Brine::Store::Position row_;
  bool rowsAreThrough_ = false;  // of the table
  Lattice::Database::Kept kept_;
  size_t nextKept_ = 0;
  size_t nextRewritten_ = 0;
  size_t looked_ = 0;
  size_t all_ = 0;

  size_t restored_ = 0;
  std::vector<RowWithoutEntry> bareRows_;
  std::vector<Rewritten> rewritten_;
  std::vector<Entry> unusable_;
  std::vector<std::string> reasons_;  // why entries are unusable
  std::set<std::string> known_;       // tables whose kept records were restored
  EntryHandle bound_ = 0;             // to the record being restored; 0: none
};

}  // namespace P4Runtime
