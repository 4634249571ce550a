// Keyed shared-memory tables that outlive the process: one LMDB environment in the state directory.
// One process writes; any number of processes read whole commits.
#pragma once

#include <chrono>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace Brine {

using Bytes = std::span<const uint8_t>;
using TableNumber = uint32_t;  // of this process's opening; names are what lasts

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

// The writer. Call with the activity lock held; the thread may change from call to call.
// Writes gather in a write set, which get() and count() see at once and others see from commit()
// on.
class Store {
 public:
  // Throws StoreError; existing files are then untouched. Only after an error with isLoss() may the
  // caller decide to rebuild.
  static std::unique_ptr<Store> open(const StoreOptions& options);
  // Moves the files aside and opens an empty store: to DIRECTORY.damaged-N, or, when they are of
  // another boot, to DIRECTORY.earlier-boot, replacing a former one. `movedTo`, unless null, is set
  // to the place.
  static std::unique_ptr<Store> rebuild(const StoreOptions& options, Trouble why = Trouble::damaged,
                                        std::string* movedTo = nullptr);
  virtual ~Store() = default;

  virtual TableNumber table(std::string_view name) = 0;  // creates it when absent
  virtual bool hasTable(std::string_view name) const = 0;
  virtual std::vector<std::string> tableNames() const = 0;
  virtual void tableDel(std::string_view name) = 0;  // with all its records, at once

  // Valid until the next write, commit or discard of this store. A damaged record counts as absent.
  virtual std::optional<Bytes> get(TableNumber table, Bytes key) = 0;
  // Insert or replace; the caller fills the returned bytes before any other call. Keys: 1 to 2,048
  // bytes. Throws StoreError{unavailable} when there is no memory.
  virtual std::span<uint8_t> reserve(TableNumber table, Bytes key, size_t size) = 0;
  void put(TableNumber table, Bytes key, Bytes value);
  virtual bool erase(TableNumber table, Bytes key) = 0;  // false for an absent record
  virtual void eraseAll(TableNumber table) = 0;
  virtual size_t count(TableNumber table) const = 0;  // records, the write set included

  // Walks the committed records in ascending byte order of their keys, from `from` on (empty: the
  // first). The write set is not seen. Stops when `visit` returns false. `visit` must not write.
  // Damaged records are passed over; returns how many.
  using Visit = std::function<bool(Bytes key, Bytes value)>;
  virtual size_t forEach(TableNumber table, const Visit& visit, Bytes from = {}) = 0;

  // The damaged records that get() and forEach() have come upon, each of them once.
  virtual std::vector<DamagedRecord> takeDamagedRecords() = 0;
  // Erases those of the records that are still damaged, at once.
  virtual void eraseDamaged(std::span<const DamagedRecord> records) = 0;

  virtual bool dirty() const = 0;  // whether the write set holds anything
  // How much of the state directory a commit may fill. A full store still takes deletions, and the
  // undoing of each commit.
  enum class Filling {
    leaveRoomToDelete,  // for records that are new: some deletions fit afterwards, and their
                        // undoing
    leaveRoomToUndo,    // for deletions and changes: their own undoing fits afterwards
    takeAll,            // for an undoing, and in a store in which nothing is undone
  };
  // Makes the write set visible and lasting, as one transaction. Throws StoreError: the write set
  // is then dropped and the store is as after the commit before.
  virtual void commit(Filling filling) = 0;
  void commit() { commit(Filling::leaveRoomToDelete); }
  // A process that may have read the store has gone: the pages it held can be used again.
  virtual void handleReaderGone() = 0;
  virtual void discard() = 0;  // drops the write set
  virtual size_t bytesUsed() const = 0;
};

// Reads another process's store. Not thread-safe: one Reader a thread.
class Snapshot;
class Reader {
 public:
  // Looks through the whole store first, which takes about a microsecond a page, and refuses a
  // damaged one. Throws StoreError.
  static std::unique_ptr<Reader> open(const std::string& directory);
  virtual ~Reader() = default;
  // One commit's state, the newest. Keep it short: pages it sees cannot be reused meanwhile.
  // At most one at a time.
  virtual std::unique_ptr<Snapshot> snapshot() = 0;
};

class Snapshot {
 public:
  virtual ~Snapshot() = default;
  virtual std::vector<std::string> tableNames() const = 0;
  virtual bool hasTable(std::string_view name) const = 0;
  // The three below return nothing, or 0, for an absent table. Bytes live as long as this.
  virtual std::optional<Bytes> get(std::string_view table, Bytes key) = 0;
  virtual size_t forEach(std::string_view table, const Store::Visit& visit, Bytes from = {}) = 0;
  virtual size_t count(std::string_view table) = 0;
  // The records that get() and forEach() have passed over.
  virtual const std::set<DamagedRecord>& damagedRecords() const = 0;
};

// Whether the directory is memory: only then do its files end with this boot of the machine.
bool isMemory(const std::string& directory);

inline Bytes asBytes(std::string_view text) {
  return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}
inline std::string_view asText(Bytes bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace Brine
