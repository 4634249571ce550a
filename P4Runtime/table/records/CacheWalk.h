// Walks the records of a cache while the store is being written.
#pragma once

#include <absl/container/flat_hash_set.h>

#include <string>
#include <utility>
#include <vector>

#include "P4Runtime/table/records/EntryCache.h"

namespace P4Runtime {

// Visits each committed record once, as it is at that time. A store must not be
// written while it is walked, so that records are copied out, some at a time. The cache outlives
// it. Commits between two calls are allowed.
template <typename Record>
class CacheWalk {
 public:
  explicit CacheWalk(const EntryCache<Record>& cache) : cache_(cache) {}

  // Visits the next records until `visit` returns false. Returns whether all were visited.
  template <typename Visit>
  bool advance(Visit visit) {
    while (next_ < chunk_.size() || copyChunk()) {
      const auto& [key, stored] = chunk_[next_++];
      if (!visit(Brine::asBytes(key), Brine::asBytes(stored))) return false;
    }
    return true;
  }

 private:
  static constexpr size_t chunkSize = 1024;

  // A record that was written again after its visit comes once more, and is passed over.
  bool copyChunk() {
    chunk_.clear();
    next_ = 0;
    const auto copy = [&](Brine::Bytes key, Brine::Bytes stored) {
      const bool isNew = seen_.emplace(Brine::asText(key)).second;
      if (isNew) chunk_.emplace_back(Brine::asText(key), Brine::asText(stored));
      return chunk_.size() < chunkSize;
    };
    cache_.forEach(copy, &position_);
    return !chunk_.empty();
  }

  const EntryCache<Record>& cache_;
  Brine::Store::Position position_;
  std::vector<std::pair<std::string, std::string>> chunk_;  // stored keys and records
  size_t next_ = 0;
  absl::flat_hash_set<std::string> seen_;
};

}  // namespace P4Runtime
