// Little-endian bytes of stored records and doorbell messages: written by appending, read with
// every length checked.
#pragma once

#include <bit>
#include <concepts>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

namespace Lattice {

static_assert(std::endian::native == std::endian::little, "stored records are little-endian");

template <std::unsigned_integral T>
void storeAt(void* to, T value) {
  std::memcpy(to, &value, sizeof value);
}
template <std::unsigned_integral T>
T loadAt(const void* from) {
  T value;
  std::memcpy(&value, from, sizeof value);
  return value;
}

inline std::string bigEndian(uint64_t value) {
  const uint64_t swapped = __builtin_bswap64(value);
  return {reinterpret_cast<const char*>(&swapped), sizeof swapped};
}

template <std::unsigned_integral T>
void append(std::string& bytes, T value) {
  bytes.append(reinterpret_cast<const char*>(&value), sizeof value);
}
// Size (u32), then the text.
inline void appendText(std::string& bytes, std::string_view text) {
  append(bytes, static_cast<uint32_t>(text.size()));
  bytes.append(text);
}

// Takes values from the front. Once something is missing it stays bad() and gives zeros.
class Unpacker {
 public:
  explicit Unpacker(std::string_view bytes) : rest_(bytes) {}

  template <std::unsigned_integral T>
  T take() {
    const std::string_view bytes = takeBytes(sizeof(T));
    return bytes.size() == sizeof(T) ? loadAt<T>(bytes.data()) : T{};
  }
  std::string_view takeBytes(size_t size) {
    if (size > rest_.size()) bad_ = true;
    if (bad_) return {};
    const std::string_view bytes = rest_.substr(0, size);
    rest_.remove_prefix(size);
    return bytes;
  }
  std::string_view takeText() { return takeBytes(take<uint32_t>()); }

  bool bad() const { return bad_; }
  bool empty() const { return rest_.empty(); }
  size_t left() const { return rest_.size(); }              // bytes
  bool finished() const { return !bad_ && rest_.empty(); }  // nothing missing, nothing left over

 private:
  std::string_view rest_;
  bool bad_ = false;
};

}  // namespace Lattice
