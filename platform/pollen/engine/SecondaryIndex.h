// Rows of one table found by the values of some of their columns.
#pragma once

#include <absl/container/btree_set.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Pollen {

// Keeps, for each row, a hash of the columns' values and the row's key, ascending: some 25 bytes
// beyond the key. Callers compare the values of the rows they find once more. All keys are of one
// size. Not thread-safe.
class SecondaryIndex {
 public:
  SecondaryIndex(std::vector<size_t> columns, size_t keySize);

  const std::vector<size_t>& columns() const { return columns_; }
  void rowIs(uint64_t hash, std::string_view key);
  void rowDel(uint64_t hash, std::string_view key);
  void rowDelAll();
  size_t size() const { return entries_.size(); }
  // Appends at most `most` keys of the hash that come after `after` (empty: from the first).
  void keys(uint64_t hash, std::string_view after, size_t most,
            std::vector<std::string>* found) const;

 private:
  struct Entry {
    uint64_t hash;
    uint32_t slot;
  };
  struct Wanted {
    uint64_t hash;
    std::string_view key;
  };
  struct Less {
    using is_transparent = void;
    const SecondaryIndex* index;
    Wanted wanted(const Entry& entry) const { return {entry.hash, index->keyAt(entry.slot)}; }
    static Wanted wanted(const Wanted& wanted) { return wanted; }
    template <typename A, typename B>
    bool operator()(const A& a, const B& b) const {
      if (a.hash != b.hash) return a.hash < b.hash;
      return wanted(a).key < wanted(b).key;
    }
  };
  std::string_view keyAt(uint32_t slot) const {
    return {keys_.data() + size_t{slot} * keySize_, keySize_};
  }

  const std::vector<size_t> columns_;
  const size_t keySize_;
  std::vector<char> keys_;      // by slot
  std::vector<uint32_t> free_;  // slots
  absl::btree_set<Entry, Less> entries_;
};

// Put together from the values of an index's columns, in order.
class IndexHash {
 public:
  void add(int64_t number) { add({reinterpret_cast<const char*>(&number), sizeof number}); }
  void add(std::string_view bytes);
  uint64_t value() const { return value_; }

 private:
  uint64_t value_ = 0;
};

}  // namespace Pollen
