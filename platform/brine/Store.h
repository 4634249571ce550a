// Keyed shared-memory tables that outlive the process: one LMDB environment in the state directory.
// One process writes; any number of processes read whole commits.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/brine/StoreTerms.h"

namespace Brine {

// The writer. Writes gather in a write set, which get() and count() see at once and others see from
// commit() on.
// Threads: call with the activity lock held; the thread may change from call to call. Errors:
// writes throw StoreError, and the records are then as before. Lifetime: returned bytes last until
// the next write.
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
  using Visit = RecordVisit;
  virtual size_t forEach(TableNumber table, const Visit& visit, Bytes from = {}) = 0;

  // The damaged records that get() and forEach() have come upon, each of them once.
  virtual std::vector<DamagedRecord> takeDamagedRecords() = 0;
  // Erases the given records that are still damaged, at once.
  virtual void eraseDamaged(std::span<const DamagedRecord> records) = 0;

  virtual bool dirty() const = 0;  // whether the write set holds anything
  using Filling = Brine::Filling;
  // Makes the write set visible and lasting, as one transaction. Throws StoreError: the write set
  // is then dropped and the store is as after the commit before.
  virtual void commit(Filling filling) = 0;
  void commit() { commit(Filling::leaveRoomToDelete); }
  // A process that may have read the store has gone: the store uses its pages again.
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

}  // namespace Brine
