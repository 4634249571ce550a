#include "platform/pollen/engine/SecondaryIndex.h"

#include <algorithm>

#include "platform/brine/Hash.h"

namespace Pollen {

SecondaryIndex::SecondaryIndex(std::vector<size_t> columns, size_t keySize)
    : columns_(std::move(columns)), keySize_(keySize), entries_(Less{this}) {}

void SecondaryIndex::rowIs(uint64_t hash, std::string_view key) {
  if (entries_.contains(Wanted{hash, key})) return;
  uint32_t slot = 0;
  if (free_.empty()) {
    slot = static_cast<uint32_t>(keys_.size() / std::max<size_t>(keySize_, 1));
    keys_.insert(keys_.end(), key.begin(), key.end());
  } else {
    slot = free_.back();
    free_.pop_back();
    std::ranges::copy(key, keys_.begin() + static_cast<ptrdiff_t>(size_t{slot} * keySize_));
  }
  entries_.insert({hash, slot});
}

void SecondaryIndex::rowDel(uint64_t hash, std::string_view key) {
  const auto found = entries_.find(Wanted{hash, key});
  if (found == entries_.end()) return;
  free_.push_back(found->slot);
  entries_.erase(found);
}

void SecondaryIndex::rowDelAll() {
  entries_.clear();
  free_.clear();
  keys_.clear();
}

void SecondaryIndex::keys(uint64_t hash, std::string_view after, size_t most,
                          std::vector<std::string>* found) const {
  const Wanted from{hash, after};
  auto entry = after.empty() ? entries_.lower_bound(from) : entries_.upper_bound(from);
  for (; most > 0 && entry != entries_.end() && entry->hash == hash; ++entry, --most) {
    found->emplace_back(keyAt(entry->slot));
  }
}

void IndexHash::add(std::string_view bytes) {
  value_ = Brine::hashOf(Brine::asBytes(bytes), value_ + bytes.size());
}

}  // namespace Pollen
