// Reads the fields of a serialized message whose fields come once each, as senders write them.
#pragma once

#include <cstdint>
#include <string_view>

namespace pi::fe::proto {

// Protocol Buffers also allow a field to come again, unknown fields and groups. A message with such
// things counts as unusual: the reader of a field need not understand it, since Protocol Buffers
// parse the message instead.
class FieldReader {
 public:
  static constexpr uint32_t numberTag(uint32_t field) { return field << 3; }
  static constexpr uint32_t bytesTag(uint32_t field) { return field << 3 | 2; }
  static constexpr uint32_t onceEach = 0;

  // `repeated` has the bit of each field that may come again. Fields above 31 may never.
  explicit FieldReader(std::string_view message, uint32_t repeated = onceEach)
      : at_(reinterpret_cast<const uint8_t*>(message.data())),
        end_(at_ + message.size()),
        repeated_(repeated) {}

  // Goes to the next field; false at the end of the message, and of one that is unusual.
  bool next() {
    if (at_ == end_ || !isUsual_) return false;
    const uint64_t tag = varint();
    const uint64_t field = tag >> 3;
    if (field == 0 || field > 31) return isUsual_ = false;
    const uint32_t bit = uint32_t{1} << field;
    if ((seen_ & bit & ~repeated_) != 0) return isUsual_ = false;
    seen_ |= bit;
    tag_ = static_cast<uint32_t>(tag);
    return isUsual_;
  }
  uint32_t tag() const { return tag_; }

  // The value of the field, by its tag. 0 or empty when it is cut off.
  uint64_t number() { return varint(); }
  std::string_view bytes() {
    const uint64_t size = varint();
    if (size > static_cast<uint64_t>(end_ - at_)) return cutOff();
    const std::string_view bytes(reinterpret_cast<const char*>(at_), size);
    at_ += size;
    return bytes;
  }

  // Behind what has been read.
  const char* at() const { return reinterpret_cast<const char*>(at_); }

  // After the last field.
  bool wasUsual() const { return isUsual_ && at_ == end_; }

 private:
  uint64_t varint() {
    uint64_t value = 0;
    for (int shift = 0; at_ != end_ && shift < 64; shift += 7) {
      const uint8_t byte = *at_++;
      value |= uint64_t{byte & 0x7fu} << shift;
      if (byte < 0x80) return value;
    }
    isUsual_ = false;
    return 0;
  }
  std::string_view cutOff() {
    isUsual_ = false;
    return {};
  }

  const uint8_t* at_;
  const uint8_t* const end_;
  const uint32_t repeated_;
  uint32_t seen_ = 0;  // the bits of fields
  uint32_t tag_ = 0;
  bool isUsual_ = true;
};

}  // namespace pi::fe::proto
