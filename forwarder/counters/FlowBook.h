// The counts of rows in tables with a counter, and the changes that are not published yet.
#pragma once

#include <absl/container/flat_hash_map.h>

#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "forwarder/table/ProgrammedTable.h"
#include "platform/lattice/types/DirectColumns.h"

namespace Forwarder {

// A row starts with the counts in its counter columns, keeps counting while its entry handle stays,
// and its count goes with it. Functions that take a table do nothing when it has no counter.
// Threads: one at a time.
class FlowBook {
 public:
  // Of one flow since its last publication.
  struct Change {
    uint64_t entryHandle = 0;
    uint64_t bytes = 0;
    uint64_t packets = 0;
    bool deleted = false;
  };
  using CounterColumns = std::optional<Lattice::CounterColumns>;

  // The counter columns that a row holds, if any.
  static CounterColumns countersOf(const ProgrammedTable& table, const StoredRow& row);

  // The row was written for this entry; `former` are its counter columns before, nothing for a new
  // row.
  void handleRowWritten(const ProgrammedTable& table, const StoredRow& row, uint64_t entryHandle,
                        const CounterColumns& former);
  void forgetRow(const ProgrammedTable& table, const StoredRow& row);
  void forgetTable(const ProgrammedTable& table);
  void republishTable(const ProgrammedTable& table);  // notes all its counts as changes

  void countIs(const RowFlow& flow) {
    changes_[flow.entryHandle] = {flow.entryHandle, flow.bytes, flow.packets, false};
  }
  void countDel(uint64_t entryHandle) { changes_[entryHandle] = {entryHandle, 0, 0, true}; }

  // Whether counts were set by a controller since the last call, who may read them at once.
  bool takeUrgency() { return std::exchange(isUrgent_, false); }

  bool empty() const { return changes_.empty(); }  // no changes
  std::vector<Change> takeChanges();               // all of them
  // Notes a change that could not be published; a newer change of the flow stands.
  void putBack(const Change& change) { changes_.try_emplace(change.entryHandle, change); }

 private:
  absl::flat_hash_map<uint64_t, Change> changes_;  // by entry handle
  bool isUrgent_ = false;
};

}  // namespace Forwarder
