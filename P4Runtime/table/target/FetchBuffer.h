// The bytes that a fetch returns to the PI library: fields appended little-endian, none padded.
#pragma once

#include <cstddef>
#include <cstring>
#include <memory>

namespace P4Runtime {

// Room for `size` bytes, which the caller works out beforehand.
class FetchBuffer {
 public:
  explicit FetchBuffer(size_t size) : bytes_(new char[size]), size_(size) {}

  template <typename T>
  void put(T value) {
    put(&value, sizeof value);
  }
  void put(const void* bytes, size_t size) {
    if (size != 0) std::memcpy(bytes_.get() + used_, bytes, size);
    used_ += size;
  }
  bool fits(size_t bytes) const { return used_ + bytes <= size_; }
  size_t used() const { return used_; }
  char* release() { return bytes_.release(); }  // the caller deletes it as an array

 private:
  std::unique_ptr<char[]> bytes_;
  size_t size_;
  size_t used_ = 0;
};

}  // namespace P4Runtime
