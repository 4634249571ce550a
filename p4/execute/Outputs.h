// What comes out of the switch for packets that went in.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "p4/externs/Digests.h"

namespace P4 {

// Frames and digest lists, in the order in which they came to be. Memory is kept for the next use.
class Outputs {
 public:
  struct Frame {
    uint32_t port = 0;
    std::span<const uint8_t> bytes;  // until clear() or the next packet
  };

  void clear() {
    frames_.clear();
    used_ = 0;
    digests.clear();
  }
  size_t size() const { return frames_.size(); }
  Frame frame(size_t position) const {
    const Place& place = frames_[position];
    return {place.port, {bytes_.get() + place.at, place.size}};
  }

  // Room for a frame of up to `bytes`; then its real size.
  uint8_t* room(size_t bytes);
  void add(uint32_t port, size_t size) {
    frames_.push_back({port, used_, size});
    used_ += size;
  }

  std::vector<DigestList> digests;

 private:
  struct Place {
    uint32_t port;
    size_t at;
    size_t size;
  };
  std::vector<Place> frames_;
  std::unique_ptr<uint8_t[]> bytes_;
  size_t capacity_ = 0;
  size_t used_ = 0;
};

}  // namespace P4
