#include "platform/brine/WriteSet.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <random>

#include "platform/brine/Hash.h"

namespace Brine {
namespace {

constexpr size_t blockSize = size_t{256} * 1024;
constexpr size_t blocksKept = 16;
constexpr size_t slotsKept = 1 << 14;

uint64_t randomSeed() {
  // Keys come from controllers; a seed of the process's own keeps them from lining up collisions.
  std::random_device device;
  return uint64_t{device()} << 32 | device();
}

uint64_t prefixOf(const PendingRecord& record) {
  uint8_t first[8] = {};
  std::memcpy(first, record.keyBytes, std::min<size_t>(8, record.keySize));
  uint64_t prefix;
  std::memcpy(&prefix, first, sizeof prefix);
  return std::endian::native == std::endian::little ? __builtin_bswap64(prefix) : prefix;
}

bool keyBefore(Bytes a, Bytes b) {
  const int order = std::memcmp(a.data(), b.data(), std::min(a.size(), b.size()));
  return order != 0 ? order < 0 : a.size() < b.size();
}

}  // namespace

uint8_t* Arena::allocate(size_t size) {
  size = (size + 7) & ~size_t{7};
  while (current_ < blocks_.size() && used_ + size > blocks_[current_].size) {
    ++current_;
    used_ = 0;
  }
  if (current_ == blocks_.size()) {
    const size_t fresh = std::max(size, blockSize);
    blocks_.push_back({std::unique_ptr<uint8_t[]>(new uint8_t[fresh]), fresh});
  }
  uint8_t* bytes = blocks_[current_].bytes.get() + used_;
  used_ += size;
  return bytes;
}

void Arena::clear() {
  if (blocks_.size() > blocksKept) blocks_.resize(blocksKept);
  current_ = used_ = 0;
}

WriteSet::WriteSet() : slots_(1024), seed_(randomSeed()) {}

uint64_t WriteSet::hash(TableNumber table, Bytes key) const { return hashOf(key, seed_ + table); }

PendingRecord* WriteSet::find(TableNumber table, Bytes key, uint64_t hash) {
  const size_t mask = slots_.size() - 1;
  for (size_t slot = hash & mask; slots_[slot] != 0; slot = (slot + 1) & mask) {
    PendingRecord& record = records_[slots_[slot] - 1];
    if (record.hash == hash && record.table == table && record.keySize == key.size() &&
        std::memcmp(record.keyBytes, key.data(), key.size()) == 0) {
      return &record;
    }
  }
  return nullptr;
}

PendingRecord& WriteSet::add(TableNumber table, Bytes key, uint64_t hash) {
  if (records_.size() * 2 >= slots_.size()) grow();
  uint8_t* keyBytes = arena_.allocate(key.size());
  std::memcpy(keyBytes, key.data(), key.size());
  PendingRecord& record = records_.emplace_back();
  record.keyBytes = keyBytes;
  record.keySize = static_cast<uint32_t>(key.size());
  record.table = table;
  record.hash = hash;
  const size_t mask = slots_.size() - 1;
  size_t slot = hash & mask;
  while (slots_[slot] != 0) slot = (slot + 1) & mask;
  slots_[slot] = static_cast<uint32_t>(records_.size());
  return record;
}

void WriteSet::sizeIs(PendingRecord& record, size_t size) {
  if (size > record.capacity || !record.valueBytes) {
    // One that grows again and again must not leave a copy of each size behind.
    const size_t room =
        std::max<size_t>(size, std::min<size_t>(size_t{2} * record.capacity, UINT32_MAX));
    record.valueBytes = arena_.allocate(room);
    record.capacity = static_cast<uint32_t>(room);
  }
  record.valueSize = static_cast<uint32_t>(size);
}

const std::vector<uint32_t>& WriteSet::sorted() {
  sortKeys_.clear();
  for (uint32_t i = 0; i < records_.size(); ++i) {
    sortKeys_.push_back({prefixOf(records_[i]), records_[i].table, i});
  }
  std::sort(sortKeys_.begin(), sortKeys_.end(), [this](const SortKey& a, const SortKey& b) {
    if (a.table != b.table) return a.table < b.table;
    if (a.prefix != b.prefix) return a.prefix < b.prefix;
    return keyBefore(records_[a.index].key(), records_[b.index].key());
  });
  order_.clear();
  for (const SortKey& key : sortKeys_) order_.push_back(key.index);
  return order_;
}

void WriteSet::clear() {
  records_.clear();
  arena_.clear();
  if (slots_.size() > slotsKept) {
    slots_.assign(1024, 0);
    records_.shrink_to_fit();
  } else {
    std::fill(slots_.begin(), slots_.end(), 0);
  }
}

void WriteSet::grow() {
  slots_.assign(slots_.size() * 2, 0);
  const size_t mask = slots_.size() - 1;
  for (uint32_t i = 0; i < records_.size(); ++i) {
    size_t slot = records_[i].hash & mask;
    while (slots_[slot] != 0) slot = (slot + 1) & mask;
    slots_[slot] = i + 1;
  }
}

}  // namespace Brine
