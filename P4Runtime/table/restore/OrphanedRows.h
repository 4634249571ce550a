// Rows that no entry stands for. They would otherwise stay in the forwarding plane for good.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "P4Runtime/table/restore/RestoreSlice.h"
#include "P4Runtime/table/restore/RestoreTools.h"

namespace P4Runtime {

// A row that may have no entry, by its key.
struct RowWithoutEntry {
  ResourceId rid;
  std::string key;
};

// A search through the rows of members and groups, in slices. Call with the activity lock held,
// once all handles are bound again.
class OrphanedRows {
 public:
  explicit OrphanedRows(const RestoreTools& tools);

  // False while there are more rows to look at in later slices.
  bool search(RestoreSlice& slice);
  // Removes the rows found, and those of `more`, whose entry has neither handle nor record now.
  // Returns how many there were.
  size_t remove(const std::vector<RowWithoutEntry>& more);

 private:
  struct Table {
    ResourceId rid;
    Vela::Ptr<Lattice::ArTableInterface> interface;
  };

  bool isOrphan(const ResourceId& rid, const Lattice::StoredRow& row) const;
  bool remove(const RowWithoutEntry& row) const;

  const RestoreTools& tools_;
  std::vector<Table> tables_;
  size_t table_ = 0;
  Brine::Store::Position row_;
  std::vector<RowWithoutEntry> found_;
};

}  // namespace P4Runtime
