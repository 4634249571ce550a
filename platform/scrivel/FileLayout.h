// The bytes of a trace file, as the tracing process maps them and readers find them, perhaps after
// the process has died in the middle of a store. Host byte order: files do not travel.
//
//   FileHeader | HandleEntry[maxHandles] | rings times (RingHeader | Slot[ringSize])
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace Scrivel {

inline constexpr char fileMagic[8] = {'K', 'V', 'S', 'C', 'R', 'I', 'V', '1'};
inline constexpr uint32_t maxHandles = 1024;
inline constexpr uint32_t maxRings = 10;
inline constexpr uint32_t maxRingSize = 1u << 16;  // records
inline constexpr size_t slotSize = 512;            // bytes, the slot's own header included

struct FileHeader {
  char magic[8];  // written last, so that a reader never sees half a header
  uint32_t rings;
  uint32_t ringSize;  // records a ring, a power of two
  uint32_t maxStringLength;
  std::atomic<uint32_t> handleCount;
  int64_t pid;
  uint64_t startNs;     // since the epoch
  char levels[1024];    // the setting in force, for handles that come later; zero-terminated
  char reserved[3032];  // to the end of the page
};
static_assert(sizeof(FileHeader) == 4096);

struct HandleEntry {
  char name[56];  // zero-terminated, unless full
  // Bit n: level n is stored. It lives here so that `korvel trace --set` reaches a running process.
  std::atomic<uint32_t> mask;
  uint32_t reserved;
};
static_assert(sizeof(HandleEntry) == 64);

struct RingHeader {
  std::atomic<uint64_t> next;  // ticket of the next record, from 0
  std::atomic<uint64_t> lost;  // given up because another thread was still busy in the slot
  char reserved[48];
};
static_assert(sizeof(RingHeader) == 64);

// Record t lies in slot t % ringSize. `state` is 0 when never written, 2 * (t + 1) + 1 while
// record t is being stored, and 2 * (t + 1) when it is complete.
struct SlotHeader {
  std::atomic<uint64_t> state;
  uint64_t timeNs;  // since the epoch
  uint32_t threadId;
  uint16_t handle;  // number of its HandleEntry
  uint16_t size;    // bytes of arguments
};
static_assert(sizeof(SlotHeader) == 24);

inline constexpr size_t slotCapacity = slotSize - sizeof(SlotHeader);
inline constexpr uint16_t noHandle = 0xffff;  // the table of handles was full

// Arguments: one tag byte each, then
enum class Tag : uint8_t {
  text = 1,        // length u16 | bytes
  textCut = 2,     // the same, and it went on
  signed64 = 3,    // i64
  unsigned64 = 4,  // u64
  boolean = 5,     // u8
  number = 6,      // double
  hex = 7,         // u64
  pointer = 8,     // u64
  buffer = 9,      // length u16 | bytes, shown as hexadecimal
  bufferCut = 10,  // the same, and it went on
  more = 11,       // nothing: further arguments did not fit
};

size_t ringBytes(uint32_t ringSize);
size_t ringOffset(uint32_t ringSize, uint32_t ring);
size_t fileBytes(uint32_t rings, uint32_t ringSize);

}  // namespace Scrivel
