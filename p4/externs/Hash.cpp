#include "p4/externs/Hash.h"

#define XXH_INLINE_ALL
#include <xxhash.h>

#include <algorithm>

#include "p4/externs/Crc.h"
#include "p4/externs/InternetSum.h"

namespace P4 {
namespace {

constexpr Crc crc8({8, 0x07, 0, false, 0});
constexpr Crc crc16({16, 0x8005, 0, true, 0});
constexpr Crc crc32({32, 0x04c11db7, 0xffffffff, true, 0xffffffff});
constexpr Crc crcCcitt({16, 0x1021, 0xffff, false, 0});
constexpr Crc crc64({64, 0x1b, 0, true, 0});

uint64_t bigEndian(std::span<const uint8_t> bytes) {
  uint64_t value = 0;
  for (const uint8_t byte : bytes) value = value << 8 | byte;
  return value;
}

// The word of `size` bytes at `at`, zero bytes behind the end.
uint64_t wordAt(std::span<const uint8_t> bytes, size_t at, size_t size) {
  const size_t there = std::min(size, bytes.size() - at);
  return bigEndian(bytes.subspan(at, there)) << 8 * (size - there);
}

uint64_t internetChecksum(std::span<const uint8_t> bytes) {
  InternetSum sum;
  sum.add(bytes);
  return sum.checksum();
}

uint64_t xorWords(std::span<const uint8_t> bytes, size_t size) {
  uint64_t value = 0;
  for (size_t at = 0; at < bytes.size(); at += size) value ^= wordAt(bytes, at, size);
  return value;
}

uint64_t fnvWithMixing(std::span<const uint8_t> bytes) {
  uint32_t hash = 2166136261u;
  for (const uint8_t byte : bytes)
    hash = (hash ^ static_cast<uint32_t>(static_cast<int8_t>(byte))) * 16777619u;
  hash += hash << 13;
  hash ^= hash >> 7;
  hash += hash << 3;
  hash ^= hash >> 17;
  hash += hash << 5;
  return hash;
}

}  // namespace

uint64_t hashBytes(Algorithm algorithm, std::span<const uint8_t> bytes) {
  switch (algorithm) {
    case Algorithm::crc16:
      return crc16.of(bytes);
    case Algorithm::crc32:
      return crc32.of(bytes);
    case Algorithm::crcCcitt:
      return crcCcitt.of(bytes);
    case Algorithm::crc8:
      return crc8.of(bytes);
    case Algorithm::crc64:
      return crc64.of(bytes);
    case Algorithm::csum16:
      return internetChecksum(bytes);
    case Algorithm::xor16:
      return xorWords(bytes, 2);
    case Algorithm::xor32:
      return xorWords(bytes, 4);
    case Algorithm::identity:
      return bigEndian(bytes.first(std::min<size_t>(8, bytes.size())));
    case Algorithm::xxh64:
      return XXH64(bytes.data(), bytes.size(), 0);
    case Algorithm::hashEx:
      return fnvWithMixing(bytes);
    case Algorithm::toeplitz:  // with a key of zeros
    case Algorithm::roundRobin:
    case Algorithm::roundRobinConsistent:
      break;
  }
  return 0;
}

uint64_t HashState::consistent(std::span<const uint8_t> bytes) {
  std::string key(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  if (const auto found = firstSeen_.find(key); found != firstSeen_.end()) return found->second;
  if (firstSeen_.size() >= maxRemembered) return firstSeen_.size();
  return firstSeen_.emplace(std::move(key), firstSeen_.size()).first->second;
}

uint64_t HashState::hash(Algorithm algorithm, std::span<const uint8_t> bytes) {
  if (algorithm == Algorithm::roundRobin) return calls_++;
  if (algorithm == Algorithm::roundRobinConsistent) return consistent(bytes);
  return hashBytes(algorithm, bytes);
}

}  // namespace P4
