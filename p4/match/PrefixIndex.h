// Entries of a table with one LPM element, and maybe exact ones beside it.
#pragma once

#include <absl/container/flat_hash_map.h>

#include <memory>
#include <vector>

#include "p4/match/PrefixTrie.h"
#include "p4/match/WordHash.h"

namespace P4 {

// A trie for each value of the exact elements. Borrows the entries.
class PrefixIndex {
 public:
  explicit PrefixIndex(size_t exactWords) : exactWords_(exactWords) {}

  const Entry* find(const uint64_t* key) const {
    if (exactWords_ == 0) return only_.find(key);
    const PrefixTrie* trie = trieOf(key);
    return trie ? trie->find(key + exactWords_) : nullptr;
  }
  Entry* same(const Entry& entry) const;
  void insert(Entry* entry);
  void remove(Entry* entry);
  bool empty() const { return exactWords_ == 0 ? only_.empty() : branches_.empty(); }

 private:
  const PrefixTrie* trieOf(const uint64_t* key) const;

  size_t exactWords_;
  PrefixTrie only_;  // without exact elements
  // By hash of the exact words; equal hashes share a list.
  struct Branch {
    std::vector<uint64_t> words;
    PrefixTrie trie;
  };
  absl::flat_hash_map<size_t, std::vector<std::unique_ptr<Branch>>> branches_;
};

}  // namespace P4
