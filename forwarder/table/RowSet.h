// The rows of one table by their packed key, and by number: a hash table of pointers to rows of one
// allocation each.
#pragma once

#include <absl/container/flat_hash_set.h>

#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

#include "forwarder/table/RowMemory.h"

namespace Forwarder {

// A row as the forwarder holds it; its key and value bytes follow it in memory.
struct StoredRow {
  uint32_t keySize = 0;    // bytes
  uint32_t valueSize = 0;  // bytes
  uint32_t snapshot = 0;   // the number of the last snapshot that showed it
  uint32_t number = 0;     // its place among the set's rows, for RowSet::at()
  std::string_view key() const { return {bytes(), keySize}; }
  std::string_view value() const { return {bytes() + keySize, valueSize}; }
  const char* bytes() const { return reinterpret_cast<const char*>(this + 1); }
};

// The packets counted for a row of a table with a counter. It lies in front of the row in memory,
// so that the rows of other tables do not grow by it.
struct RowFlow {
  uint64_t entryHandle = 0;  // 0: not counted yet
  uint64_t bytes = 0;
  uint64_t packets = 0;
};

// What lies in front of each row.
struct RowExtras {
  bool counted = false;  // a RowFlow
  bool placed = false;   // a RowPlace
};

// The place of a row with another owner, who finds it there without a look-up. Null: not known.
using RowPlace = void*;

// Threads: one at a time.
// Lifetime: the set owns its rows. A row keeps its address until it is deleted, or replaced by one
// of another size; its flow and place go with it.
// Errors: refuses nothing but for want of memory (std::bad_alloc).
class RowSet {
 public:
  explicit RowSet(RowExtras extras = {})
      : placeSize_(extras.placed ? sizeof(RowPlace) : 0),
        extrasSize_(placeSize_ + (extras.counted ? sizeof(RowFlow) : 0)) {}
  ~RowSet();
  RowSet(const RowSet&) = delete;
  RowSet& operator=(const RowSet&) = delete;

  StoredRow* row(std::string_view key) const;  // null when absent
  // Have the processor fetch the memory that look-ups and changes of the keys will need, the first
  // of them a while before the second.
  void loadSlot(std::string_view key) const { slots_.prefetch(probeOf(key)); }
  void loadRow(std::string_view key) const;
  struct Written {
    StoredRow* row = nullptr;
    bool inserted = false;  // else replaced
    bool moved = false;     // replaced, and at another address than before
  };
  // Inserts or replaces. Calls `leaving` with a row that is about to move, while it is still whole.
  Written rowIs(std::string_view key, std::string_view value,
                const std::function<void(const StoredRow&)>& leaving);
  void rowDel(const StoredRow& row);
  void rowDelAll();
  size_t size() const { return rows_.size(); }
  StoredRow& at(size_t number) const { return *rows_[number]; }  // below size(); moves as rows go
  // Null unless the rows are counted.
  RowFlow* flow(const StoredRow& row) const {
    if (extrasSize_ == placeSize_) return nullptr;
    return reinterpret_cast<RowFlow*>(const_cast<StoredRow*>(&row)) - 1;
  }
  // Null, and nothing, unless the rows are placed.
  RowPlace place(const StoredRow& row) const {
    return placeSize_ == 0 ? nullptr : *reinterpret_cast<RowPlace*>(begin(row));
  }
  void placeIs(const StoredRow& row, RowPlace place) const {
    if (placeSize_ != 0) *reinterpret_cast<RowPlace*>(begin(row)) = place;
  }

  template <typename Visit>
  void forEach(const Visit& visit) const {
    for (const StoredRow* row : rows_) visit(*row);
  }
  // Deletes the rows for which `gone` returns true. Returns their number.
  template <typename Gone>
  size_t sweep(const Gone& gone) {
    const size_t before = slots_.size();
    for (auto slot = slots_.begin(); slot != slots_.end();) {
      const auto here = slot++;
      if (!gone(*here->row)) continue;
      StoredRow* row = here->row;
      slots_.erase(here);
      numberDel(*row);
      freeRow(row);
    }
    return before - slots_.size();
  }

 private:
  // The hash stands beside the pointer: the table grows without reading rows.
  struct Slot {
    StoredRow* row;
    size_t hash;
  };
  struct Probe {
    std::string_view key;
    size_t hash;
  };
  struct HashProbe {  // finds a row that has the hash, most likely the key's
    size_t hash;
  };
  struct HashOfSlot {
    using is_transparent = void;
    size_t operator()(const Slot& slot) const { return slot.hash; }
    size_t operator()(const Probe& probe) const { return probe.hash; }
    size_t operator()(const HashProbe& probe) const { return probe.hash; }
  };
  struct SameKey {
    using is_transparent = void;
    bool operator()(const Slot& a, const HashProbe& b) const { return a.hash == b.hash; }
    bool operator()(const HashProbe& a, const Slot& b) const { return a.hash == b.hash; }
    bool operator()(const Slot& a, const Slot& b) const { return a.row == b.row; }
    bool operator()(const Slot& a, const Probe& b) const {
      return a.hash == b.hash && a.row->key() == b.key;
    }
    bool operator()(const Probe& a, const Slot& b) const { return (*this)(b, a); }
  };
  static Probe probeOf(std::string_view key);
  StoredRow* allocateRow(std::string_view key, std::string_view value);
  void freeRow(StoredRow* row);
  void numberDel(const StoredRow& row);  // the last row takes its number

  char* begin(const StoredRow& row) const {  // of its memory
    return reinterpret_cast<char*>(const_cast<StoredRow*>(&row)) - extrasSize_;
  }

  const size_t placeSize_;
  const size_t extrasSize_;       // place, then flow
  std::vector<StoredRow*> rows_;  // by number
  RowMemory memory_;
  absl::flat_hash_set<Slot, HashOfSlot, SameKey> slots_;
};

}  // namespace Forwarder
