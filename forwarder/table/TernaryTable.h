// Ternary match, as in a TCAM: masks, priorities, ranges, several prefixes.
#pragma once

#include <absl/container/flat_hash_map.h>
#include <absl/container/flat_hash_set.h>
#include <absl/container/inlined_vector.h>

#include <memory>
#include <string>
#include <vector>

#include "forwarder/table/MatchTable.h"

namespace Forwarder {

// Rows with the same mask form a group, in which a hash table finds the rows that match a packet.
// A look-up probes the groups from the greatest priority down and stops at the first that cannot
// win.
class TernaryTable final : public MatchTable {
 public:
  TernaryTable(const MatchLayout& layout, RowExtras extras) : MatchTable(layout, extras) {}
  const StoredRow* lookup(std::span<const uint8_t> packet) const override;

 private:
  using Bytes = absl::InlinedVector<uint8_t, 128>;
  // The rows of one value under the mask, the best first: they differ in priority, and in ranges.
  struct Slot {
    Slot(const StoredRow& row, size_t hash) : rows{&row}, hash(hash) {}
    absl::InlinedVector<const StoredRow*, 1> rows;
    size_t hash;
  };
  struct Probe {
    const Bytes& value;
    const Bytes& mask;
    size_t hash;
  };
  struct HashOfSlot {
    using is_transparent = void;
    size_t operator()(const Slot& slot) const { return slot.hash; }
    size_t operator()(const Probe& probe) const { return probe.hash; }
  };
  struct SameValue {
    using is_transparent = void;
    const MatchLayout* layout;
    bool operator()(const Slot& a, const Slot& b) const { return &a == &b; }
    bool operator()(const Slot& slot, const Probe& probe) const;
    bool operator()(const Probe& probe, const Slot& slot) const { return (*this)(slot, probe); }
  };
  using Slots = absl::flat_hash_set<Slot, HashOfSlot, SameValue>;
  struct Group {
    Bytes mask;
    Slots slots;
    uint64_t priorityBound = 0;     // no row of the group has a greater priority
    size_t rowsLeftSinceBound = 0;  // deleted rows since the bound was exact
  };

  void handleRowAdded(const StoredRow& row) override;
  void handleRowLeaving(const StoredRow& row) override;
  const StoredRow* firstInRanges(const Slot& slot, std::span<const uint8_t> packet) const;
  Group& groupOf(const Bytes& mask);
  Bytes maskOf(const StoredRow& row) const;
  Bytes valueOf(const StoredRow& row, const Bytes& mask) const;
  void doTightenBound(Group& group);
  bool better(const StoredRow& a, const StoredRow& b) const;

  absl::flat_hash_map<std::string, std::unique_ptr<Group>> groups_;  // by mask
  // Sorted when a look-up needs them: the greatest bound first.
  mutable std::vector<const Group*> order_;
  mutable bool orderStale_ = false;
};

}  // namespace Forwarder
