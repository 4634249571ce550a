// Values by entry handle for the span of a batch, in the order in which the handles came. Each
// update looks its handle up several times, so that a look-up must cost next to nothing.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "P4Runtime/companion/ResourceId.h"

namespace P4Runtime {

// One thread at a time. References and iterators are valid until the next handle is added,
// positions until clear().
template <typename Value>
class HandleMap {
 public:
  struct Item {
    EntryHandle handle = 0;
    Value value{};
  };

  // The handle's item. Adds one with a default value for a new handle, and then returns true.
  std::pair<Item&, bool> add(EntryHandle handle) {
    if (2 * (items_.size() + 1) > slots_.size()) grow();
    uint32_t& slot = slotOf(handle);
    const bool isNew = slot == 0;
    if (isNew) {
      items_.push_back({.handle = handle});
      slot = static_cast<uint32_t>(items_.size());
    }
    return {items_[slot - 1], isNew};
  }

  // Null for a handle without an item.
  Item* find(EntryHandle handle) {
    const uint32_t slot = items_.empty() ? 0 : slotOf(handle);
    return slot == 0 ? nullptr : &items_[slot - 1];
  }
  const Item* find(EntryHandle handle) const { return const_cast<HandleMap*>(this)->find(handle); }

  // In the order of their handles' first coming.
  auto begin() { return items_.begin(); }
  auto end() { return items_.end(); }
  auto begin() const { return items_.begin(); }
  auto end() const { return items_.end(); }
  Item& operator[](size_t position) { return items_[position]; }
  size_t positionOf(const Item& item) const { return &item - items_.data(); }
  size_t size() const { return items_.size(); }

  // The memory of a usual batch is kept for the next one.
  void clear() {
    if (slots_.size() > keptSlots) {
      items_ = {};
      slots_ = {};
    } else {
      items_.clear();
      std::fill(slots_.begin(), slots_.end(), 0);
    }
  }

 private:
  static constexpr size_t keptSlots = 16384;

  // The slot that has the handle, or takes it: free slots hold 0, others a position plus 1.
  uint32_t& slotOf(EntryHandle handle) {
    const size_t mask = slots_.size() - 1;
    size_t at = handle * 0x9e3779b97f4a7c15u >> (64 - std::countr_zero(slots_.size()));
    while (slots_[at] != 0 && items_[slots_[at] - 1].handle != handle) at = (at + 1) & mask;
    return slots_[at];
  }
  void grow() {
    slots_.assign(slots_.empty() ? 64 : 2 * slots_.size(), 0);
    for (size_t i = 0; i < items_.size(); ++i) {
      slotOf(items_[i].handle) = static_cast<uint32_t>(i + 1);
    }
  }

  std::vector<Item> items_;
  std::vector<uint32_t> slots_;  // a power of two of them, at least twice as many as items
};

}  // namespace P4Runtime
