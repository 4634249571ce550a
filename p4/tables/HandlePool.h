// Gives out the smallest free number.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <vector>

namespace P4 {

class HandlePool {
 public:
  uint32_t take() {
    if (free_.empty()) return next_++;
    std::pop_heap(free_.begin(), free_.end(), std::greater<>());
    const uint32_t handle = free_.back();
    free_.pop_back();
    return handle;
  }
  void give(uint32_t handle) {
    free_.push_back(handle);
    std::push_heap(free_.begin(), free_.end(), std::greater<>());
  }

 private:
  uint32_t next_ = 0;
  std::vector<uint32_t> free_;  // heap, the smallest on top
};

}  // namespace P4
