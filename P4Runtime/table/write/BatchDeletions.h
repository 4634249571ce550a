// The entries that the batch in progress has deleted, for an addition of the same entry.
#pragma once

#include <absl/container/flat_hash_map.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "P4Runtime/companion/P4HandleMgr.h"
#include "P4Runtime/table/rows/EntryToWrite.h"

namespace P4Runtime {

// Not thread-safe. `settled` is the store's settled sequence, which differs from batch to batch: a
// batch ends with its changes settled.
class BatchDeletions {
 public:
  struct Deleted {
    EntryHandle handle = 0;
    uint64_t sequence = 0;  // of the row's change
  };

  void add(uint64_t settled, const MatchKey& key, const std::string& rowKey,
           const Deleted& deleted);
  // Removes and returns the deletion of that entry; nothing without one.
  std::optional<Deleted> take(uint64_t settled, const MatchKey& key, const std::string& rowKey);

 private:
  struct Noted {
    Deleted deleted;
    size_t nameEnd = 0;  // in names_; the name begins where the one before ends
  };

  bool isOfBatch(uint64_t settled) const { return settled_ == settled; }
  void enterNoted();
  void clear();

  uint64_t settled_ = 0;  // when the batch began
  // Most batches with deletions have no additions, so a deletion is only noted until one comes.
  std::string names_;
  std::vector<Noted> noted_;
  absl::flat_hash_map<std::string, Deleted> entered_;  // by table, priority and row key
};

}  // namespace P4Runtime
