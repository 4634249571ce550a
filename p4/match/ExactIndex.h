// Entries of a table whose keys are all exact: a hash table.
#pragma once

#include <absl/container/flat_hash_set.h>

#include "p4/match/WordHash.h"

namespace P4 {

// Borrows the entries.
class ExactIndex {
 public:
  explicit ExactIndex(size_t words) : entries_(0, KeyHash{words}, KeyEqual{words}) {}

  const Entry* find(const uint64_t* key) const {
    const auto found = entries_.find(KeyView{key});
    return found == entries_.end() ? nullptr : *found;
  }
  Entry* same(const Entry& entry) const {
    const auto found = entries_.find(KeyView{entry.value()});
    return found == entries_.end() ? nullptr : *found;
  }
  void insert(Entry* entry) { entries_.insert(entry); }
  void remove(Entry* entry) { entries_.erase(entry); }
  bool empty() const { return entries_.empty(); }

 private:
  absl::flat_hash_set<Entry*, KeyHash, KeyEqual> entries_;
};

}  // namespace P4
