// The idle time-outs of entries, which have rows of their own.
#pragma once

#include <absl/container/flat_hash_map.h>

#include <string_view>
#include <utility>

#include "PI/frontend/model/Plans.h"
#include "PI/frontend/store/EntryStore.h"

namespace pi::fe::proto {

// For one Read, on its thread. Looks through the rows of a table when it is first asked for it.
class IdleTimeouts {
 public:
  explicit IdleTimeouts(const EntryStore::Snapshot& snapshot) : snapshot_(snapshot) {}

  int64_t of(const TablePlan& table, const Entry& entry);  // in nanoseconds; 0: none

 private:
  using Key = std::pair<std::string_view, uint32_t>;  // match key and priority
  using Rows = absl::flat_hash_map<Key, int64_t>;

  const EntryStore::Snapshot& snapshot_;
  absl::flat_hash_map<const TablePlan*, Rows> tables_;
};

}  // namespace pi::fe::proto
