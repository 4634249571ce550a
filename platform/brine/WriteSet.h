// The writes gathered since the last commit: records in an arena, found through a hash index.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "platform/brine/StoreTerms.h"

namespace Brine {

// Hands out bytes that live until clear(). Keeps some memory for the next round.
class Arena {
 public:
  uint8_t* allocate(size_t size);  // throws std::bad_alloc
  void clear();

 private:
  struct Block {
    std::unique_ptr<uint8_t[]> bytes;
    size_t size = 0;
  };
  std::vector<Block> blocks_;
  size_t current_ = 0;  // blocks before it are spent
  size_t used_ = 0;     // of the current block
};

// Whether the store held a record before this write set.
enum class StoredBefore : uint8_t { unknown, present, absent };

struct PendingRecord {
  const uint8_t* keyBytes = nullptr;
  uint8_t* valueBytes = nullptr;
  uint64_t hash = 0;
  TableNumber table = 0;
  uint32_t keySize = 0;
  uint32_t valueSize = 0;
  uint32_t capacity = 0;  // of valueBytes
  bool erased = false;
  StoredBefore storedBefore = StoredBefore::unknown;

  Bytes key() const { return {keyBytes, keySize}; }
  std::span<uint8_t> value() const { return {valueBytes, valueSize}; }
};

// Call with the activity lock held. Functions that add records throw std::bad_alloc.
class WriteSet {
 public:
  WriteSet();
  // `hash` is hash(table, key). References to records last until the next add().
  uint64_t hash(TableNumber table, Bytes key) const;
  PendingRecord* find(TableNumber table, Bytes key, uint64_t hash);
  PendingRecord& add(TableNumber table, Bytes key, uint64_t hash);  // one that find() lacks
  void sizeIs(PendingRecord& record, size_t size);                  // contents are lost

  size_t size() const { return records_.size(); }
  PendingRecord& record(size_t index) { return records_[index]; }
  uint32_t indexOf(const PendingRecord& record) const {
    return static_cast<uint32_t>(&record - records_.data());
  }
  // Indices of all records, ascending by table and key bytes. Valid until the next call.
  const std::vector<uint32_t>& sorted();
  void clear();

 private:
  void grow();

  Arena arena_;
  std::vector<PendingRecord> records_;
  std::vector<uint32_t> slots_;  // index + 1 of a record, 0: free; a power of two many
  struct SortKey {
    uint64_t prefix;  // the key's first eight bytes, so that most comparisons stay here
    TableNumber table;
    uint32_t index;
  };
  std::vector<SortKey> sortKeys_;
  std::vector<uint32_t> order_;
  uint64_t seed_;
};

}  // namespace Brine
