#include "p4/execute/Outputs.h"

#include <cstring>

namespace P4 {

uint8_t* Outputs::room(size_t bytes) {
  if (used_ + bytes > capacity_) {
    const size_t capacity = 2 * (used_ + bytes) + 16384;
    std::unique_ptr<uint8_t[]> larger(new uint8_t[capacity]);
    if (used_) std::memcpy(larger.get(), bytes_.get(), used_);
    bytes_ = std::move(larger);
    capacity_ = capacity;
  }
  return bytes_.get() + used_;
}

}  // namespace P4
