// The committed entries, members and groups of a device, as the forwarding plane is known to hold
// them. A Write enters its outcome here once it is known; Reads see each Write wholly or not at
// all.
#pragma once

#include <absl/container/flat_hash_map.h>
#include <absl/container/flat_hash_set.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <span>
#include <vector>

#include "PI/frontend/store/Entry.h"
#include "PI/frontend/store/EntryPages.h"

namespace pi::fe::proto {

// One success of a Write: the entry now stands, or (isDelete) no longer does.
struct Change {
  EntrySlot slot;
  bool isDelete = false;
};

class P4InfoIndex;

// Thread-safe; its lock is a leaf and never held while anything waits. One Write at a time.
class EntryStore {
 public:
  class Snapshot;

  // Before controllers get in: adds or replaces, in order. The second leaves the slots empty.
  void entryIs(EntryPtr entry);
  void entriesAre(std::span<EntrySlot> slots);
  void reserve(size_t more);  // room for so many
  // Only entries of these tables stay, and they are of that model from now on. Snapshots that were
  // made before keep all.
  void keepTables(std::span<const uint32_t> tableIds, const P4InfoIndex& model);

  // For the Write in progress, which alone changes the store and sees the changes that it has kept:
  // null when nothing stands there. The pointer is good until that Write's next keep() or commit().
  const Entry* committed(const EntryLookup& lookup) const;
  // All entries of a table, in no order.
  std::vector<EntrySlot> slotsOf(uint32_t tableId) const;
  // Have the processor fetch the memory that a look-up will need, which is to come: of the set's
  // slots; a while later of the entry, which is returned; and later of its place among the others
  // of its table, for a change. An entry of another key with that hash may take its place; null for
  // none.
  void loadSlot(size_t hash) const;
  const Entry* loadEntry(size_t hash) const;
  void loadPlace(const Entry& entry) const;

  // A Write of several batches keeps the outcome of each but the last. Leaves the slots empty.
  void keep(std::span<Change> changes);
  void forgetKept();  // the Write in progress takes back all that it has kept
  // Ends a Write: applies the changes it kept, then these. Reads that begin now see all of it.
  // Leaves the slots empty.
  void commit(std::span<Change> changes = {});

  EntryPtr entry(const EntryKey& key) const;
  size_t size() const;

 private:
  using Set = absl::flat_hash_set<EntrySlot, EntrySlotHash, EntrySlotEqual>;
  // Of the Write in progress; true: deleted.
  using Kept = absl::flat_hash_map<EntrySlot, bool, EntrySlotHash, EntrySlotEqual>;

  void applyLocked(Change change, std::vector<EntryPtr>* gone);
  void enterLocked(EntrySlot slot, std::vector<EntryPtr>* gone);
  EntryPtr entryLocked(const EntryLookup& lookup) const;
  EntryPages& pagesOf(const Entry& entry) { return pages_[listOf(entry)]; }
  // Members and groups of a profile are lists of their own.
  static uint64_t listOf(uint32_t tableId, bool groups) { return uint64_t{tableId} << 1 | groups; }
  static uint64_t listOf(const Entry& entry) {
    return listOf(entry.tableId, entry.kind == EntryKind::groupObject);
  }

  mutable std::mutex mutex_;  // guards the members up to the next blank line
  Set entries_;
  absl::flat_hash_map<uint64_t, EntryPages> pages_;  // by list
  EntryPages::Snapshots snapshots_;
  std::set<uint64_t> alive_;            // numbers of snapshots
  const P4InfoIndex* model_ = nullptr;  // null: the first one

  Kept kept_;  // for the Write in progress alone, without the lock
};

// The store as it was when the snapshot was made. The store outlives it, and keeps replaced entries
// for as long as the snapshot lives. One thread at a time.
class EntryStore::Snapshot {
 public:
  // Finds the entries of `lookups` in the same moment: one for each, in order, null for a key
  // without an entry.
  explicit Snapshot(EntryStore& store, std::span<const EntryLookup> lookups = {});
  ~Snapshot();
  Snapshot(const Snapshot&) = delete;
  Snapshot& operator=(const Snapshot&) = delete;

  std::span<const EntryPtr> found() const { return found_; }
  // Whether the entries are encoded by that model; another pipeline may have taken the store over.
  bool isOf(const P4InfoIndex& model) const { return model_ == nullptr || model_ == &model; }

  // The table's entries, in no order.
  const EntryPages::List& table(uint32_t tableId) const;
  std::vector<const Entry*> entries(uint32_t tableId) const;
  // Of a table that has one at most; null for none.
  const Entry* onlyEntry(uint32_t tableId) const;
  // The members (or groups) of a profile, by id.
  std::vector<const Entry*> objects(uint32_t profileId, bool groups) const;

 private:
  const EntryPages::List& list(uint64_t number) const;
  static std::vector<const Entry*> entriesOf(const EntryPages::List& list);

  EntryStore& store_;
  uint64_t number_ = 0;
  const P4InfoIndex* model_ = nullptr;
  std::vector<EntryPtr> found_;
  absl::flat_hash_map<uint64_t, std::shared_ptr<const EntryPages::List>> lists_;
};

}  // namespace pi::fe::proto
