// Tells that records are missing or that former ones are back: no checksum of a record can.
#pragma once

#include <absl/container/flat_hash_map.h>

#include <cstdint>

#include "platform/brine/Layout.h"
#include "platform/brine/StoreFile.h"

namespace Brine {

// A sum over the versions that count, of all tables, written with each commit. Only the writer has
// one.
class RecordSum {
 public:
  explicit RecordSum(StoreFile& file) : file_(file) {}

  static uint64_t of(uint64_t begin, Ref ref) {
    const uint64_t mixed = (begin ^ uint64_t{ref} << 24) * 0x9fb21c651e98df25;
    return (mixed ^ mixed >> 29) * 0xd6e8feb86659fd93;
  }
  uint64_t of(Ref ref) const { return ref == 0 ? 0 : of(file_.slot(ref).begin, ref); }

  void change(uint32_t table, uint64_t more, uint64_t less) {
    if (table == gone_) return;
    tables_[table] += more - less;
    total_ += more - less;
  }
  void tableIs(uint32_t table, uint64_t sum) { change(table, sum, tableSum(table)); }
  // The table's records count no more, and neither do its changes from now on.
  void forgetTable(uint32_t table) {
    tableIs(table, 0);
    tables_.erase(table);
    gone_ = table;
  }

  // Call before that commit. The sum of the last commit stays as well.
  void write(uint64_t sequence) {
    StoredSum& place = file_.head().sums[place_ ^= 1];
    store(place.sequence, 0);
    place.sum = total_;
    store(place.sequence, stamped(sequence, total_));
  }
  // Whether that commit's sum is this one, `more` included. Call before the first write().
  bool isRight(uint64_t sequence, uint64_t more) {
    const uint64_t sum = total_ + more;
    for (place_ = 0; place_ < 2; ++place_) {
      const StoredSum& stored = file_.head().sums[place_];
      if (stored.sum == sum && stored.sequence == stamped(sequence, sum)) return true;
    }
    return place_ = 0, false;
  }

 private:
  uint64_t tableSum(uint32_t table) const {
    const auto found = tables_.find(table);
    return found == tables_.end() ? 0 : found->second;
  }

  StoreFile& file_;
  absl::flat_hash_map<uint32_t, uint64_t> tables_;  // by number
  uint64_t total_ = 0;
  uint32_t gone_ = 0;
  unsigned place_ = 0;  // of the last sum
};

}  // namespace Brine
