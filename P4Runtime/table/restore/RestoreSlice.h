// How much of a restore is done in one turn of the reactor.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace P4Runtime {

// One part of a restore: so long, or so many objects.
class RestoreSlice {
 public:
  static RestoreSlice whole() { return {}; }  // is never over
  static RestoreSlice ofTime(std::chrono::milliseconds length) {
    RestoreSlice slice;
    slice.length_ = length;
    return slice;
  }
  static RestoreSlice ofObjects(size_t count) {
    RestoreSlice slice;
    slice.objects_ = count;
    return slice;
  }

  // Call once an object. The time begins with the first call, and is looked at now and then.
  bool isOver() {
    const size_t object = done_++;
    if (done_ >= objects_) return true;
    if (!length_ || object % objectsALook != 0) return false;
    const auto now = std::chrono::steady_clock::now();
    if (object == 0) end_ = now + *length_;
    return now >= end_;
  }

 private:
  static constexpr size_t objectsALook = 64;

  std::optional<std::chrono::milliseconds> length_;
  std::chrono::steady_clock::time_point end_;
  size_t objects_ = SIZE_MAX;
  size_t done_ = 0;
};

// How far a restore has come.
struct RestoreProgress {
  size_t entries = 0;  // looked at
  size_t all = 0;
};

}  // namespace P4Runtime
