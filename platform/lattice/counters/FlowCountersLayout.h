// Where flow counters lie: one file a forwarding agent, in a folder of its own.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/brine/Hash.h"
#include "platform/lattice/counters/FlowCounters.h"

namespace Lattice {

inline std::string flowCountersRoot(const std::string& stateDirectory) {
  return stateDirectory + "/counters";
}

// The folder of a forwarding agent of that name: letters, digits, '-' and '_' stand as they are,
// any other byte as '%' and two hex digits. So no two names share a folder, none leads out of the
// root, and no folder of counts has a '.' in its name.
std::string flowCountersFolder(std::string_view forwarderName);
inline bool isFlowCountersFolder(std::string_view file) {
  return file.find('.') == std::string_view::npos;
}

inline constexpr char countsName[] = "counts";
inline constexpr char newCountsName[] = "counts.new";      // not complete yet
inline constexpr char countsLockName[] = "counts.writer";  // held with flock() by the writer

// The file is a head and behind it an array of slots, a hash table with open addressing: a count is
// in the first slot from firstSlot() on that was free. All numbers are little-endian.
static_assert(std::endian::native == std::endian::little);

// Of a flow's name. `low` is never one of the numbers that mark slots without a count.
struct FlowHash {
  uint64_t low = 0;
  uint64_t high = 0;
  friend bool operator==(const FlowHash&, const FlowHash&) = default;
};
inline constexpr uint64_t emptySlot = 0;    // the search for a name ends here
inline constexpr uint64_t deletedSlot = 1;  // and does not end here

inline FlowHash flowHash(std::string_view name) {
  const XXH128_hash_t hash = XXH3_128bits(name.data(), name.size());
  return {hash.low64 > deletedSlot ? hash.low64 : hash.low64 + 2, hash.high64};
}

struct CountSlot {
  FlowHash hash;
  FlowCount count;
  uint64_t check = 0;  // of all before, and of the slot's number; an empty slot has none
  friend bool operator==(const CountSlot&, const CountSlot&) = default;

  bool isEmpty() const { return hash.low == emptySlot; }
  bool hasCount() const { return hash.low > deletedSlot; }
};
static_assert(sizeof(CountSlot) == 40);

inline uint64_t slotCheck(const CountSlot& slot, uint64_t number) {
  return Brine::hashOf({reinterpret_cast<const uint8_t*>(&slot), offsetof(CountSlot, check)},
                       number);
}
// Neither damaged nor being written at this moment.
inline bool isSound(const CountSlot& slot, uint64_t number) {
  if (slot.isEmpty()) return slot == CountSlot{};
  return slot.check == slotCheck(slot, number);
}

struct CountsHead {
  uint64_t magic = 0;
  uint64_t version = 0;
  uint64_t slots = 0;     // a power of two
  uint64_t checksum = 0;  // of all before
  uint64_t replaced = 0;  // 1: another file has taken the place of this one
  // The slot that is being written, or was last. A slot that a reader finds half written, because
  // the writer was killed or waits for a processor, is to be read from here.
  uint64_t writtenNumber = 0;  // the slot's number + 1; 0: none yet
  CountSlot written;           // has a check even when it is empty
  uint8_t unused[40] = {};
};
static_assert(sizeof(CountsHead) == 128);

inline constexpr uint64_t countsMagic = 0x73746e756f436c46;  // "FlCounts"
inline constexpr uint64_t countsVersion = 1;
inline constexpr uint64_t fewestSlots = 64;  // less than a page
inline constexpr uint64_t mostSlots = uint64_t{1} << 40;

inline uint64_t headChecksum(const CountsHead& head) {
  return Brine::hashOf({reinterpret_cast<const uint8_t*>(&head), offsetof(CountsHead, checksum)},
                       0);
}
inline bool isSound(const CountsHead& head) {
  return head.magic == countsMagic && head.version == countsVersion &&
         std::has_single_bit(head.slots) && head.slots >= fewestSlots && head.slots <= mostSlots &&
         head.checksum == headChecksum(head);
}

inline uint64_t slotOffset(uint64_t number) {
  return sizeof(CountsHead) + number * sizeof(CountSlot);
}
// Ascends with the hash, so that a copy into a larger file goes through both from front to back.
inline uint64_t firstSlot(FlowHash hash, uint64_t slots) {
  return hash.high >> (64 - std::countr_zero(slots));
}

}  // namespace Lattice
