#include "P4Runtime/table/records/CacheKey.h"

#include <fmt/format.h>

namespace P4Runtime {
namespace {

template <typename T>
uint8_t* putBigEndian(uint8_t* at, T value) {
  for (int shift = (sizeof(T) - 1) * 8; shift >= 0; shift -= 8) *at++ = uint8_t(value >> shift);
  return at;
}

}  // namespace

std::string toText(const CacheKey& key) {
  return fmt::format("Value('P4Runtime::CacheKey', ** {{'rid': {}, 'entryHandle': {}}})",
                     toText(key.rid), key.entryHandle);
}

std::array<uint8_t, 16> storedKey(const CacheKey& key) {
  std::array<uint8_t, 16> bytes;
  putBigEndian(putBigEndian(putBigEndian(bytes.data(), key.rid.type), key.rid.id), key.entryHandle);
  return bytes;
}

CacheKey cacheKeyOf(std::span<const uint8_t> stored) {
  if (stored.size() != 16) return {};
  const auto number = [&](size_t from, size_t to) {
    uint64_t value = 0;
    for (size_t at = from; at < to; ++at) value = value << 8 | stored[at];
    return value;
  };
  return {{static_cast<ResourceType>(number(0, 4)), static_cast<uint32_t>(number(4, 8))},
          number(8, 16)};
}

std::array<uint8_t, 8> storedKeyPrefix(const ResourceId& rid) {
  std::array<uint8_t, 8> bytes;
  putBigEndian(putBigEndian(bytes.data(), rid.type), rid.id);
  return bytes;
}

}  // namespace P4Runtime
