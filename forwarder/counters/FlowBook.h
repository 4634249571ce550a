// The counts of rows in tables with a counter, and of cells of counters; and the changes of them
// that are not published yet.
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
  // Of one flow, or of one cell, since its last publication.
  struct Change {
    uint64_t entryHandle = 0;  // of a cell: its index
    uint64_t bytes = 0;
    uint64_t packets = 0;
    bool deleted = false;
    uint32_t counterId = 0;  // of a cell
  };
  struct Counts {
    uint64_t bytes = 0;
    uint64_t packets = 0;
  };
  using CounterColumns = std::optional<Lattice::CounterColumns>;

  // The counter columns that a row holds, if any.
  static CounterColumns countersOf(const ProgrammedTable& table, const StoredRow& row);

  // The row was written for this entry; `former` are its counter columns before, nothing for a new
  // row. Returns whether its flow counts from the numbers that it has now.
  bool handleRowWritten(const ProgrammedTable& table, const StoredRow& row, uint64_t entryHandle,
                        const CounterColumns& former);
  void forgetRow(const ProgrammedTable& table, const StoredRow& row);
  void forgetTable(const ProgrammedTable& table);
  void republishTable(const ProgrammedTable& table);  // notes all its counts as changes

  void countIs(const RowFlow& flow) {
    changes_[{0, flow.entryHandle}] = {flow.entryHandle, flow.bytes, flow.packets, false};
  }
  void countDel(uint64_t entryHandle) { changes_[{0, entryHandle}] = {entryHandle, 0, 0, true}; }
  void cellCountIs(uint32_t counterId, uint64_t index, const Counts& counts) {
    changes_[{counterId, index}] = {index, counts.bytes, counts.packets, false, counterId};
  }
  // A controller has set counts and may read them at once.
  void urgencyIs() { isUrgent_ = true; }

  // Whether counts were set by a controller since the last call, who may read them at once.
  bool takeUrgency() { return std::exchange(isUrgent_, false); }

  bool empty() const { return changes_.empty(); }  // no changes
  std::vector<Change> takeChanges();               // all of them
  // Notes a change that could not be published; a newer change of the flow stands.
  void putBack(const Change& change) {
    changes_.try_emplace({change.counterId, change.entryHandle}, change);
  }

 private:
  // By counter, 0 for flows, and by index or entry handle.
  absl::flat_hash_map<std::pair<uint32_t, uint64_t>, Change> changes_;
  bool isUrgent_ = false;
};

}  // namespace Forwarder
