// Entries with masks, ranges and priorities: tuple space search.
#pragma once

#include <absl/container/flat_hash_set.h>

#include <memory>
#include <vector>

#include "p4/match/KeyShape.h"
#include "p4/match/WordHash.h"

namespace P4 {

// Entries of equal masks form a tuple, which is a hash table of masked values. A look-up asks the
// tuples in the order of their best ranks and stops when none can be better. An element with a
// range counts with the bits that both ends share; the ends themselves are compared with what is
// found. While there are few entries, they are tried one by one instead, which is faster. Borrows
// the entries.
class TupleSpace {
 public:
  explicit TupleSpace(const KeyShape& shape) : shape_(shape) {}

  // Of all that match, the one of the lowest rank, and of those the lowest handle; or null.
  const Entry* find(const uint64_t* key) const;
  // The entry of equal key and rank, or null.
  Entry* same(const Entry& entry) const;
  void insert(Entry* entry);
  void remove(Entry* entry);

 private:
  // Entries of one masked value, the best first.
  struct Bucket {
    std::vector<uint64_t> words;
    std::vector<Entry*> entries;
  };
  struct BucketHash {
    using is_transparent = void;
    size_t count;
    size_t operator()(const std::unique_ptr<Bucket>& bucket) const {
      return hashWords(bucket->words.data(), count);
    }
    size_t operator()(KeyView key) const { return hashWords(key.words, count); }
  };
  struct BucketEqual {
    using is_transparent = void;
    size_t count;
    static const uint64_t* wordsOf(const std::unique_ptr<Bucket>& bucket) {
      return bucket->words.data();
    }
    static const uint64_t* wordsOf(KeyView key) { return key.words; }
    template <typename One, typename Other>
    bool operator()(const One& one, const Other& other) const {
      return equalWords(wordsOf(one), wordsOf(other), count);
    }
  };
  struct Tuple {
    explicit Tuple(size_t words) : buckets(0, BucketHash{words}, BucketEqual{words}) {}
    std::vector<uint64_t> mask;
    uint32_t bestRank = 0xffffffff;  // no entry has a better one
    absl::flat_hash_set<std::unique_ptr<Bucket>, BucketHash, BucketEqual> buckets;
  };

  static constexpr size_t maxFew = 48;

  const Entry* findAmongFew(const uint64_t* key) const;
  void insertTuple(Entry* entry);
  const Entry* findIn(const Tuple& tuple, const uint64_t* key, const Entry* best) const;
  bool inRanges(const Entry& entry, const uint64_t* key) const;
  Tuple* tupleOf(const Entry& entry) const;
  static bool better(const Entry& one, const Entry& other);
  void sortTuples();

  KeyShape shape_;
  std::vector<std::unique_ptr<Tuple>> tuples_;
  std::vector<Entry*> few_;  // all, the best first; not kept once there have been more than maxFew
  bool isFew_ = true;
};

}  // namespace P4
