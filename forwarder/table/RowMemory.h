// The memory of rows that are gone, for the next ones of their size: rows come and go by thousands,
// and memory that went back piece by piece takes long to find again.
#pragma once

#include <absl/container/flat_hash_map.h>

#include <cstddef>
#include <new>
#include <vector>

namespace Forwarder {

// Not thread-safe.
class RowMemory {
 public:
  RowMemory() = default;
  RowMemory(const RowMemory&) = delete;
  RowMemory& operator=(const RowMemory&) = delete;
  ~RowMemory() {
    for (const auto& [size, kept] : ofSize_) {
      for (void* memory : kept) ::operator delete(memory);
    }
  }

  void* take(size_t size) {
    const auto found = ofSize_.find(size);
    if (found == ofSize_.end() || found->second.empty()) return ::operator new(size);
    void* const memory = found->second.back();
    found->second.pop_back();
    return memory;
  }
  void give(void* memory, size_t size) {
    std::vector<void*>& kept = ofSize_[size];
    if (kept.size() == mostKept) return ::operator delete(memory);
    kept.push_back(memory);
  }

 private:
  static constexpr size_t mostKept = 16384;  // of a size

  absl::flat_hash_map<size_t, std::vector<void*>> ofSize_;
};

}  // namespace Forwarder
