// Keyed shared-memory tables that outlive the process: one file in the state directory, mapped by
// all. One process writes; any number of processes read whole commits, and follow the changes.
#pragma once

#include <chrono>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace Brine {

using Bytes = std::span<const uint8_t>;
using TableNumber = uint32_t;  // as long as the table is there; never another table's

enum class Trouble {
  full,          // no room in the state directory
  unwritable,    // directory or files are missing and not creatable, not ours, or no files
  unavailable,   // the system refuses for now: no descriptors, no memory, a lock, the device
  wrongVersion,  // written by another version of the layout
  damaged,       // the file is no store of ours
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
  // That can be followed; a power of two. Seven eighths of them take the largest Write.
  uint32_t changes = 1 << 17;
  // How long an opening that the system refuses is tried again, in the calling thread.
  std::chrono::milliseconds patience{0};
  std::string bootId = {};  // of this boot of the machine; empty: the kernel's
};

// A record whose checksum is wrong.
struct DamagedRecord {
  std::string table;
  std::string key;  // this and the owner: as they can be read
  uint64_t owner = 0;
  friend auto operator<=>(const DamagedRecord&, const DamagedRecord&) = default;
};

// One version of a record. The bytes lie in the store; they last until the commit that deletes or
// replaces the record is settled.
struct Record {
  Bytes key;
  Bytes value;
  Bytes attachment;       // bytes of the writer's own, which followers do not see
  uint64_t owner = 0;     // of the writer's choice
  uint64_t sequence = 0;  // of the change that wrote it
};

// A change that waits for its outcome.
struct Change {
  TableNumber table = 0;
  uint64_t owner = 0;
  std::optional<Record> before;  // as it was
  std::optional<Record> now;     // nothing: deleted
};

// How a record is written.
struct WriteOptions {
  size_t attachmentSize = 0;
  uint64_t owner = 0;
  bool unchanged = false;  // followers are told that the value is as it was
};

// The writer. Call with the activity lock held; the thread may change from call to call. Writes are
// seen by this store at once, and by others from commit() on.
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

  // Creates it when absent. Others see it from the next commit on; discarding leaves it there.
  virtual TableNumber table(std::string_view name) = 0;
  virtual bool hasTable(std::string_view name) const = 0;
  virtual std::vector<std::string> tableNames() const = 0;
  // With all its records, at once. Commits.
  virtual void tableDel(std::string_view name) = 0;

  // The value, valid until the record is written again. A damaged record counts as absent.
  virtual std::optional<Bytes> get(TableNumber table, Bytes key) const = 0;
  virtual std::optional<Record> record(TableNumber table, Bytes key) const = 0;
  virtual bool contains(TableNumber table, Bytes key) const = 0;  // a damaged record, too
  // The record of an owner that has one record in the table, found by the hash of its key.
  virtual uint32_t keyHash(Bytes key) const = 0;
  virtual std::optional<Record> recordOf(TableNumber table, uint32_t keyHash,
                                         uint64_t owner) const = 0;
  // Has the processor fetch the memory of the records whose keys have these hashes, for reads and
  // writes that are to come.
  virtual void load(TableNumber table, std::span<const uint32_t> keyHashes) const = 0;
  // Insert or replace; the caller fills the returned bytes before any other call. Keys: 1 to 2,048
  // bytes, else std::invalid_argument. Throws StoreError{full}, and the record is as before.
  struct Written {
    std::span<uint8_t> value;
    std::span<uint8_t> attachment;
    uint64_t sequence = 0;
  };
  virtual Written write(TableNumber table, Bytes key, size_t valueSize,
                        const WriteOptions& options) = 0;
  std::span<uint8_t> reserve(TableNumber table, Bytes key, size_t size) {
    return write(table, key, size, {}).value;
  }
  void put(TableNumber table, Bytes key, Bytes value);
  virtual bool erase(TableNumber table, Bytes key) = 0;  // false for an absent record
  // As erase(), and tells followers so under `owner` even when the record is absent. Returns the
  // sequence number of the change. Throws StoreError{full} for an absent record, and for one that
  // the same transaction made: it is then gone without a word to followers.
  virtual uint64_t eraseFor(TableNumber table, Bytes key, uint64_t owner) = 0;
  virtual void eraseAll(TableNumber table) = 0;
  virtual size_t count(TableNumber table) const = 0;  // records, those not committed included

  // Walks the committed records, in no order. Stops when `visit` returns false; with a `position`,
  // the next walk goes on there, and passes over no record that was not written meanwhile. `visit`
  // must not write. Damaged records are passed over; returns how many.
  struct Position {
    uint64_t next = 0;
  };
  using Visit = std::function<bool(Bytes key, Bytes value)>;
  using RecordVisit = std::function<bool(const Record& record)>;
  virtual size_t forEachRecord(TableNumber table, const RecordVisit& visit, Position* position) = 0;
  size_t forEachRecord(TableNumber table, const RecordVisit& visit) {
    return forEachRecord(table, visit, nullptr);
  }
  size_t forEach(TableNumber table, const Visit& visit);

  // The damaged records that the opening and forEach() have come upon, each of them once.
  virtual std::vector<DamagedRecord> takeDamagedRecords() = 0;
  // Erases those of the records that are still damaged, at once.
  virtual void eraseDamaged(std::span<const DamagedRecord> records) = 0;

  virtual bool dirty() const = 0;  // whether any write is not committed
  // Lets Reader::followAhead() see the writes so far, which may still be replaced or discarded.
  // Returns the sequence number of the last one.
  virtual uint64_t showAhead() = 0;
  // Makes the writes visible and lasting, all in one step. Needs no room.
  virtual void commit() = 0;
  virtual void discard() = 0;  // takes the writes since the last commit back

  virtual uint64_t committedSequence() const = 0;
  virtual uint64_t nextSequence() const = 0;  // of the next change
  virtual uint64_t settledSequence() const = 0;
  // How many changes may wait for their outcome so that a later writer can undo them.
  virtual size_t mostUndoneLater() const = 0;
  // The change of that sequence number. Nothing when it is settled, or when a later change of the
  // same commit stands for it. Valid until the next write.
  virtual std::optional<Change> change(uint64_t sequence) const = 0;
  // Makes the record as it was before that change, which must not be settled. Needs no room. A
  // store that is opened again can undo the changes of the writer before, unless they were more
  // than mostUndoneLater(). Returns the sequence number of the change that this makes; 0: the
  // record was as it was.
  virtual uint64_t undo(uint64_t sequence) = 0;
  // Nothing that is committed waits for its outcome any more: former versions may go.
  virtual void settle() = 0;
  // Whether the record was written by a change that is not settled. A store that is opened again
  // has such records when its writer died before settle().
  virtual bool isUnsettled(const Record& record) const = 0;

  // Followers have received the changes up to `sequence`: those and older ones, and at most all but
  // the newest `atMost` changes, need not be kept.
  virtual void trim(uint64_t sequence, size_t atMost) = 0;
  virtual uint64_t trimmedUpTo() const = 0;  // the changes after it can be followed
  virtual uint64_t typesVersion() const = 0;
  virtual void typesChanged() = 0;                // followers are told with the next commit
  virtual std::string_view identity() const = 0;  // 16 bytes, made with the store
  virtual size_t bytesUsed() const = 0;
};

inline Bytes asBytes(std::string_view text) {
  return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}
inline std::string_view asText(Bytes bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// Whether the directory is memory: only then do its files end with this boot of the machine.
bool isMemory(const std::string& directory);

}  // namespace Brine
