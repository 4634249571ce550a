// Memory for packets that go round: it stays in place until all packets are through.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace P4 {

class Buffers {
 public:
  uint8_t* take(size_t bytes) {
    if (used_ == all_.size()) all_.emplace_back();
    Buffer& buffer = all_[used_++];
    if (buffer.size < bytes) {
      buffer.size = bytes + 2048;
      buffer.bytes.reset(new uint8_t[buffer.size]);
    }
    return buffer.bytes.get();
  }
  void giveAll() { used_ = 0; }

 private:
  struct Buffer {
    std::unique_ptr<uint8_t[]> bytes;
    size_t size = 0;
  };
  std::vector<Buffer> all_;
  size_t used_ = 0;
};

}  // namespace P4
