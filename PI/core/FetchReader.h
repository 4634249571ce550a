// Reads a fetch buffer written by a target: little-endian, unpadded, and not to be trusted.
#pragma once

#include <cstddef>
#include <cstdint>

#include "PI/int/pi_int.h"

namespace pi::core {

class FetchReader {
 public:
  // Borrows the buffer; null reads as empty. An offset past its end reads as its end.
  FetchReader(char* buffer, size_t size, size_t offset)
      : buffer_(buffer), size_(buffer ? size : 0), offset_(offset < size_ ? offset : size_) {}

  // False, and the argument untouched, when fewer bytes are left.
  template <typename Number>
  bool number(Number* out) {
    char* at = nullptr;
    if (!bytes(sizeof(Number), &at)) return false;
    Number value = 0;
    for (size_t i = 0; i < sizeof(Number); ++i) {
      value |= static_cast<Number>(static_cast<uint8_t>(at[i])) << (8 * i);
    }
    *out = value;
    return true;
  }
  // Points *out into the buffer.
  bool bytes(size_t count, char** out) {
    if (size_ - offset_ < count) return false;
    *out = buffer_ + offset_;
    offset_ += count;
    return true;
  }

  // Action id, size, data: as table entries and members hold it.
  bool actionData(pi_action_data_t* out) {
    uint32_t size = 0;
    if (!number(&out->action_id) || !number(&size)) return false;
    out->data_size = size;
    return bytes(size, &out->data);
  }

  size_t offset() const { return offset_; }

 private:
  char* const buffer_;
  const size_t size_;
  size_t offset_;
};

}  // namespace pi::core
