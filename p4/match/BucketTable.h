// A hash table whose look-ups mostly find nothing, and whose callers hash.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

namespace P4 {

// Owns the buckets. At most half of the slots are taken, and each has its whole hash: a look-up of
// a key that is absent touches one or two slots and no bucket.
template <typename Bucket>
class BucketTable {
 public:
  bool empty() const { return count_ == 0; }

  // The bucket of this hash for which `matches` is true, or null.
  template <typename Matches>
  Bucket* find(uint64_t hash, const Matches& matches) const {
    if (slots_.empty()) return nullptr;
    for (size_t at = home(hash); slots_[at].bucket; at = next(at)) {
      if (slots_[at].hash == hash && matches(*slots_[at].bucket)) return slots_[at].bucket.get();
    }
    return nullptr;
  }

  Bucket& insert(uint64_t hash, std::unique_ptr<Bucket> bucket) {
    if (2 * (count_ + 1) > slots_.size()) grow();
    ++count_;
    Slot& slot = slots_[freeSlot(hash)];
    slot = {hash, std::move(bucket)};
    return *slot.bucket;
  }

  void remove(uint64_t hash, const Bucket* bucket) {
    size_t at = home(hash);
    while (slots_[at].bucket.get() != bucket) at = next(at);
    slots_[at].bucket.reset();
    --count_;
    closeGap(at);
  }

 private:
  struct Slot {
    uint64_t hash = 0;
    std::unique_ptr<Bucket> bucket;  // null: the slot is free
  };

  size_t home(uint64_t hash) const { return hash & (slots_.size() - 1); }
  size_t next(size_t at) const { return (at + 1) & (slots_.size() - 1); }
  size_t freeSlot(uint64_t hash) const {
    size_t at = home(hash);
    while (slots_[at].bucket) at = next(at);
    return at;
  }

  void grow() {
    constexpr size_t least = 8;
    std::vector<Slot> former(slots_.empty() ? least : 2 * slots_.size());
    former.swap(slots_);
    for (Slot& slot : former) {
      if (slot.bucket) slots_[freeSlot(slot.hash)] = std::move(slot);
    }
  }

  // A look-up stops at a free slot: those behind it move up, unless they are at home.
  void closeGap(size_t gap) {
    for (size_t at = next(gap); slots_[at].bucket; at = next(at)) {
      const size_t distance = (at - home(slots_[at].hash)) & (slots_.size() - 1);
      if (distance < ((at - gap) & (slots_.size() - 1))) continue;
      slots_[gap] = std::move(slots_[at]);
      gap = at;
    }
  }

  std::vector<Slot> slots_;  // a power of two, or none
  size_t count_ = 0;
};

}  // namespace P4
