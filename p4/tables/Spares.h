// The memory of objects that are gone, for the next ones of their size: entries come and go by
// thousands, and memory that went back piece by piece takes long to find again.
#pragma once

#include <absl/container/flat_hash_map.h>

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace P4 {

// `size` is the owner's measure: objects of one size have the same room. Not thread-safe.
template <typename Object>
class Spares {
 public:
  using Ptr = typename Object::Ptr;
  static constexpr size_t mostKept = 16384;  // of a size
  static constexpr size_t loadedAhead = 4;   // the next ones are likely to be taken soon

  void keep(uint32_t size, Ptr gone) {
    std::vector<Ptr>& kept = ofSize_[size];
    if (kept.size() < mostKept) kept.push_back(std::move(gone));
  }
  // Null when none is kept.
  Ptr take(uint32_t size) {
    const auto found = ofSize_.find(size);
    if (found == ofSize_.end() || found->second.empty()) return nullptr;
    std::vector<Ptr>& kept = found->second;
    Ptr taken = std::move(kept.back());
    kept.pop_back();
    if (kept.size() >= loadedAhead) Object::load(kept[kept.size() - loadedAhead].get());
    return taken;
  }

 private:
  absl::flat_hash_map<uint32_t, std::vector<Ptr>> ofSize_;
};

}  // namespace P4
