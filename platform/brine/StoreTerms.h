// The terms of stores: bytes, tables, troubles, and how a store is opened.
#pragma once

#include <chrono>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Brine {

using Bytes = std::span<const uint8_t>;
using TableNumber = uint32_t;  // of this process's opening; only names last

enum class Trouble {
  full,          // no room in the state directory, or the map is at its maximum
  unwritable,    // directory or files are missing and not creatable, not ours, or no files
  unavailable,   // the system refuses for now: no descriptors, no memory, a lock, the device
  wrongVersion,  // written by another version of the layout
  damaged,       // the files are no environment of ours
  otherBoot,     // written before this boot of the machine
  busy,          // another writer has the state directory open
  missing,       // a reader found no store there (yet)
};

// Whether the contents of the store are lost: then, and only then, rebuild() is in order.
constexpr bool isLoss(Trouble trouble) {
  return trouble == Trouble::wrongVersion || trouble == Trouble::damaged ||
         trouble == Trouble::otherBoot;
}

// The message names the directory or file and, unless isLoss(), what to do about it.
class StoreError : public std::runtime_error {
 public:
  StoreError(Trouble trouble, const std::string& message)
      : std::runtime_error(message), trouble(trouble) {}
  const Trouble trouble;
};

struct StoreOptions {
  std::string directory;                              // created when absent
  size_t maxBytes = size_t{64} * 1024 * 1024 * 1024;  // of address space, not of memory
  unsigned maxTables = 2048;
  // How long an opening that the system refuses is tried again, in the calling thread.
  std::chrono::milliseconds patience{0};
  std::string bootId = {};  // of this boot of the machine; empty: the kernel's
};

// A record whose checksum is wrong.
struct DamagedRecord {
  std::string table;
  std::string key;  // as LMDB has it, see Records.h
  friend auto operator<=>(const DamagedRecord&, const DamagedRecord&) = default;
};

// Of a walk over records; false ends it.
using RecordVisit = std::function<bool(Bytes key, Bytes value)>;

// How much of the state directory a commit may fill. A full store still takes deletions, and the
// undoing of each commit.
enum class Filling {
  leaveRoomToDelete,  // for records that are new: some deletions fit afterwards, and their
                      // undoing
  leaveRoomToUndo,    // for deletions and changes: their own undoing fits afterwards
  takeAll,            // for an undoing, and in a store in which nothing is undone
};

inline Bytes asBytes(std::string_view text) {
  return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}
inline std::string_view asText(Bytes bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace Brine
