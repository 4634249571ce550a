// Entries of a table whose keys are all exact: a hash table.
#pragma once

#include <absl/container/flat_hash_set.h>

#include "p4/match/WordHash.h"

namespace P4 {

// Borrows the entries.
class ExactIndex {
 public:
  explicit ExactIndex(size_t words) : words_(words), slots_(0, Hash{words}, Equal{words}) {}

  const Entry* find(const uint64_t* key) const { return entryAt(slots_.find(KeyView{key})); }
  Entry* same(const Entry& entry) const { return entryAt(slots_.find(KeyView{entry.value()})); }
  // False, and nothing is done, when there is such an entry.
  bool maybeInsert(Entry* entry) {
    entry->hash = hashWords(entry->value(), words_);
    return slots_.insert({entry, entry->hash}).second;
  }
  // An entry that another index of the same keys has taken before.
  void insert(Entry* entry) { slots_.insert({entry, entry->hash}); }
  void remove(const Entry* entry) { slots_.erase(Itself{entry}); }
  bool empty() const { return slots_.empty(); }

 private:
  // The hash stands beside the pointer: the table grows without reading entries.
  struct Slot {
    Entry* entry;
    size_t hash;
  };
  struct Itself {
    const Entry* entry;
  };
  struct Hash : KeyHash {
    using KeyHash::operator();
    size_t operator()(const Slot& slot) const { return slot.hash; }
    size_t operator()(Itself one) const { return one.entry->hash; }
  };
  struct Equal : KeyEqual {
    using KeyEqual::operator();
    bool operator()(const Slot& one, const Slot& other) const {
      return one.hash == other.hash && KeyEqual::operator()(one.entry, other.entry);
    }
    bool operator()(const Slot& slot, KeyView key) const {
      return KeyEqual::operator()(slot.entry, key);
    }
    bool operator()(KeyView key, const Slot& slot) const { return (*this)(slot, key); }
    bool operator()(const Slot& slot, Itself one) const { return slot.entry == one.entry; }
    bool operator()(Itself one, const Slot& slot) const { return slot.entry == one.entry; }
  };
  using Slots = absl::flat_hash_set<Slot, Hash, Equal>;

  Entry* entryAt(Slots::const_iterator slot) const {
    return slot == slots_.end() ? nullptr : slot->entry;
  }

  const size_t words_;
  Slots slots_;
};

}  // namespace P4
