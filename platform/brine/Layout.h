// The store's file, as the writer and the readers see it. docs/shared-memory.md shows it as a
// whole.
//
// All numbers are little-endian. A word that tells of a commit, and each word of a slot's life, is
// written with a single store of 8 bytes, so that a process which is killed leaves none half done.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "platform/brine/Hash.h"

namespace Brine {

using Ref = uint32_t;  // of a slot: its place in the file, in units of 16 bytes; 0: no slot

inline constexpr uint64_t storeMagic = 0x65726f7453656e69;
inline constexpr uint32_t layoutVersion = 3;
inline constexpr size_t pageSize = 4096;
inline constexpr size_t refUnit = 16;
inline constexpr size_t keyLimit = 2048;
inline constexpr size_t attachmentLimit = UINT16_MAX;
inline constexpr size_t valueLimit = size_t{1} << 30;
inline constexpr uint64_t largestSequence = (uint64_t{1} << 48) - 1;

// A sequence number, or another number below 2^48, with 16 bits in front that check it. `salt` says
// of which word it is, so that a copy of another word is found out, too.
inline uint64_t checkBits(uint64_t number, uint64_t salt) {
  uint64_t mixed = (number ^ salt * 0x9e3779b97f4a7c15) * 0xd6e8feb86659fd93;
  return (mixed ^ mixed >> 32) << 48;
}
inline uint64_t stamped(uint64_t number, uint64_t salt) { return number | checkBits(number, salt); }
inline uint64_t numberIn(uint64_t word) { return word & largestSequence; }
inline bool isStamped(uint64_t word, uint64_t salt) {
  return word == stamped(numberIn(word), salt);
}

inline uint64_t load(const uint64_t& word) {
  return std::atomic_ref(const_cast<uint64_t&>(word)).load(std::memory_order_acquire);
}
#ifdef BRINE_FAULT_POINTS
// Of a test's build: called before and after each store of a word, where the writer may be killed.
enum class Moment { before, after };
inline void (*faultPoint)(Moment moment) = nullptr;
#define BRINE_FAULT_POINT(moment) \
  if (faultPoint) faultPoint(moment)
#else
#define BRINE_FAULT_POINT(moment)
#endif

// A reader that sees it sees all stores before it; one that sees a later store sees it, too. The
// compiler moves no store past it either way: the file tells the truth at whichever instruction the
// writer is killed.
inline void store(uint64_t& word, uint64_t value) {
  BRINE_FAULT_POINT(Moment::before);
  std::atomic_ref(word).store(value, std::memory_order_release);
  std::atomic_thread_fence(std::memory_order_acq_rel);  // costs nothing where stores keep order
  BRINE_FAULT_POINT(Moment::after);
}

// The words that change with commits. Each is stamped with its place here as salt.
struct CommitWords {
  uint64_t committed = 0;     // the last sequence number that counts; all above never were
  uint64_t settled = 0;       // up to here nothing waits for its outcome
  uint64_t trimmed = 0;       // the changes after this one can still be followed
  uint64_t typesVersion = 0;  // rises with each change of the followed tables
  uint64_t lastTable = 0;     // the highest table number given out; numbers are used once
  uint64_t end = 0;           // of the last extent, in pages
};
enum class CommitWord : uint64_t { committed = 1, settled, trimmed, typesVersion, lastTable, end };

// A sum over the records as of one commit. Two take turns, so that the last commit has one.
struct StoredSum {
  uint64_t sequence = 0;  // stamped with the sum as salt; 0: being written
  uint64_t sum = 0;
};

// The file's first page. Written whole before the file has its name, and never again but for words.
struct FileHead {
  uint64_t magic = 0;
  uint32_t version = 0;
  uint32_t changes = 0;  // that the ring holds; a power of two
  uint64_t seed = 0;     // of checksums
  char boot[64] = {};    // the kernel's id of the boot that the store was made in
  char identity[16] = {};
  uint64_t checksum = 0;  // of all before
  uint8_t unused[1024 - 112] = {};
  CommitWords words;
  StoredSum sums[2];
};
static_assert(offsetof(FileHead, words) == 1024);

// A change of a record, in a ring of them behind the first page: the one with sequence number N is
// at N modulo their number.
struct RingEntry {
  uint64_t sequence = 0;  // stamped with the rest as salt; 0: being written
  uint64_t owner = 0;
  Ref now = 0;     // the record's slot from this change on; 0: the record is deleted
  Ref before = 0;  // its slot until then; 0: there was none
  uint32_t table = 0;
  uint32_t flags = 0;

  static constexpr uint32_t deleted = 1;
  static constexpr uint32_t unchanged = 2;  // the value is as it was
  static constexpr uint32_t replaced = 4;   // a later change of the same commit stands for it
  static constexpr uint32_t withdrawn = 8;  // with `replaced`: none does, it never was
};
static_assert(sizeof(RingEntry) == 32);

inline uint64_t entrySalt(const RingEntry& entry) {
  const uint64_t refs = uint64_t{entry.now} << 32 | entry.before;
  const uint64_t kind = uint64_t{entry.table} << 32 | entry.flags;
  const uint64_t mixed = (entry.owner ^ kind * 0xff51afd7ed558ccd) * 0x9fb21c651e98df25;
  const uint64_t all = (mixed ^ mixed >> 32 ^ refs) * 0xc4ceb9fe1a85ec53;
  return all ^ all >> 32;
}

// Pages with slots of one table and one size, or with a single slot that fills them.
struct ExtentHead {
  uint64_t pages = 0;  // stamped with the extent's first page as salt
  uint64_t use = 0;    // stamped: table << 16 | slot size in units; slot size 0: a single slot
  uint8_t unused[48] = {};
};
static_assert(sizeof(ExtentHead) == 64);

// One version of a record. It counts from the commit of `begin` to that of `end`.
struct SlotHead {
  uint64_t begin = 0;  // stamped; 0: the slot is free
  uint64_t end = 0;    // stamped; 0: none yet
  uint64_t owner = 0;
  uint32_t checksum = 0;  // of all but the words, and of the table
  uint32_t valueSize = 0;
  uint16_t keySize = 0;
  uint16_t attachmentSize = 0;

  // Behind it: key, value, attachment.
  static constexpr size_t size = 36;
  const uint8_t* key() const { return reinterpret_cast<const uint8_t*>(this) + size; }
  const uint8_t* value() const { return key() + keySize; }
  const uint8_t* attachment() const { return value() + valueSize; }
  size_t bytes() const { return size + keySize + valueSize + attachmentSize; }
};
static_assert(offsetof(SlotHead, attachmentSize) + 2 == SlotHead::size);

inline uint64_t beginSalt(Ref ref) { return uint64_t{ref} << 1; }
inline uint64_t endSalt(Ref ref) { return uint64_t{ref} << 1 | 1; }

// `key` is where key, value and attachment are, one after another.
inline uint32_t slotChecksum(const SlotHead& slot, const uint8_t* key, uint64_t seed,
                             uint32_t table) {
  uint8_t head[20];
  std::memcpy(head, &slot.owner, 8);
  std::memcpy(head + 8, &slot.valueSize, 4);
  std::memcpy(head + 12, &slot.keySize, 2);
  std::memcpy(head + 14, &slot.attachmentSize, 2);
  std::memcpy(head + 16, &table, 4);
  const uint64_t front = hashOf(head, seed);
  return static_cast<uint32_t>(hashOf({key, slot.bytes() - SlotHead::size}, front));
}
// Call when the sizes are known to fit the slot.
inline uint32_t slotChecksum(const SlotHead& slot, uint64_t seed, uint32_t table) {
  return slotChecksum(slot, slot.key(), seed, table);
}

inline size_t ringBytes(uint32_t changes) { return changes * sizeof(RingEntry); }
inline uint64_t firstExtentPage(uint32_t changes) {
  return 1 + (ringBytes(changes) + pageSize - 1) / pageSize;
}

// Slots begin behind the extent's head.
inline size_t slotsIn(uint64_t pages, size_t slotSize) {
  return (pages * pageSize - sizeof(ExtentHead)) / slotSize;
}

}  // namespace Brine
