// Entries with masks, ranges and priorities: tuple space search.
#pragma once

#include <memory>
#include <vector>

#include "p4/match/BucketTable.h"
#include "p4/match/KeyShape.h"
#include "p4/match/PresenceFilter.h"
#include "p4/match/WordHash.h"

namespace P4 {

// Entries of equal masks form a tuple, which is a hash table of masked values. A look-up asks the
// tuples in the order of their best ranks and stops when none can be better. It passes over those
// of which it knows that a masked word of the key occurs in no entry; tuples have most of their
// masked words in common, so this costs little for each. An element with a range counts with the
// bits that both ends share; the ends themselves are compared with what is found. While there are
// few entries, they are tried one by one instead, which is faster. Borrows the entries.
class TupleSpace {
 public:
  explicit TupleSpace(const KeyShape& shape) : shape_(shape) {}

  // Of all that match, the one of the lowest rank, and of those the lowest handle; or null.
  const Entry* find(const uint64_t* key) const;
  // The entry of equal key and rank, or null.
  Entry* same(const Entry& entry) const;
  // The best entry of equal key, whatever its rank; or null.
  Entry* ofMatch(const Entry& entry) const;
  void insert(Entry* entry);
  void remove(Entry* entry);
  bool empty() const { return tuples_.empty(); }

 private:
  // Entries of one masked value, the best first; never empty.
  struct Bucket {
    std::vector<Entry*> entries;
  };
  struct MaskedWord {
    uint32_t word;
    uint64_t mask;
  };
  struct Tuple {
    std::vector<uint64_t> mask;
    std::vector<MaskedWord> words;  // those whose mask is not 0
    BucketTable<Bucket> buckets;

    uint64_t hash(const uint64_t* key) const {
      uint64_t hash = 0;
      for (const auto& [word, mask] : words) hash += hashWord(key[word] & mask, word);
      return hash;
    }
    Bucket* bucketOf(uint64_t hash, const uint64_t* key) const {
      return buckets.find(hash, [&](const Bucket& bucket) {
        const uint64_t* value = bucket.entries.front()->value();
        for (const auto& [word, mask] : words)
          if ((key[word] & mask) != value[word]) return false;
        return true;
      });
    }
    Bucket* bucketOf(const Entry& entry) const {
      return bucketOf(hash(entry.value()), entry.value());
    }
  };

  struct ListedTuple {
    uint64_t filters = 0;            // bits of those of its words that have one
    uint32_t bestRank = 0xffffffff;  // no entry has a better one
    std::unique_ptr<Tuple> tuple;
  };
  // Of a masked word that tuples have in common.
  struct Filter {
    MaskedWord of{};
    uint32_t tuples = 0;  // 0: it is free
    std::unique_ptr<PresenceFilter> present;
    uint64_t hash(const uint64_t* key) const { return hashWord(key[of.word] & of.mask, of.word); }
  };
  using Tuples = std::vector<ListedTuple>;

  static constexpr size_t maxFilters = 64;
  static constexpr size_t maxFew = 48;

  const Entry* findAmongFew(const uint64_t* key) const;
  void insertTuple(Entry* entry);
  Tuples::iterator newTuple(const Entry& entry);
  void noteInFilters(const ListedTuple& listed, const Entry& entry, bool isThere);
  void removeFromTuple(Entry* entry);
  const Entry* findIn(const Tuple& tuple, const uint64_t* key, const Entry* best) const;
  template <typename Wanted>
  Entry* firstOf(const Entry& key, const Wanted& wanted) const;
  bool inRanges(const Entry& entry, const uint64_t* key) const;
  Tuples::iterator tupleOf(const Entry& entry);
  Tuples::const_iterator tupleOf(const Entry& entry) const;
  static bool better(const Entry& one, const Entry& other);
  void sortTuples();
  void chooseWay();
  void beginFilters();
  void useFilters(ListedTuple& listed);
  void leaveFilters(const ListedTuple& listed);
  size_t filterOf(const MaskedWord& of);

  KeyShape shape_;
  Tuples tuples_;
  std::vector<Filter> filters_;  // none while there are few entries
  std::vector<Entry*> few_;  // all, the best first; not kept once there have been more than maxFew
  bool isFew_ = true;
  bool triesFew_ = true;  // one by one is the faster way now
};

}  // namespace P4
