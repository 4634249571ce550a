// The committed entries, members and groups of a device: what the forwarding plane is known to
// hold. A Write enters its outcome here once it is known; reads see each Write wholly or not at
// all.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <set>
#include <shared_mutex>
#include <span>
#include <vector>

#include "PI/frontend/Entry.h"
#include "absl/container/btree_set.h"
#include "absl/container/flat_hash_map.h"
#include "absl/container/flat_hash_set.h"

namespace pi::fe::proto {

// The keys that one Write touches and, as far as their outcome is in the store, what stood there
// before. Reads older than the Write's end go by it instead of by what the target shows.
class WriteLog {
 public:
  struct Touched {
    uint32_t lastLevel = 0;  // the Write's own: the batch of its latest update of this key
    bool committed = false;  // guarded by the store's lock, as is what follows
    EntryPtr original;       // what stood there before the Write; null: nothing
  };
  using Map = absl::flat_hash_map<EntrySlot, Touched, EntrySlotHash, EntrySlotEqual>;

  // References to elements stay valid for as long as there are at most `capacity` of them.
  explicit WriteLog(size_t capacity) { touched_.reserve(capacity); }
  Map& touched() { return touched_; }
  const Map& touched() const { return touched_; }

 private:
  friend class EntryStore;
  Map touched_;
  uint64_t number_ = 0;
};

// One success of a Write: the entry now stands, or (isDelete) no longer does.
struct Change {
  EntrySlot slot;
  bool isDelete = false;
  WriteLog::Touched* touched = nullptr;
};

// Thread-safe; its lock is a leaf and never held while anything waits. One Write at a time.
class EntryStore {
 public:
  class Snapshot;

  // Before controllers get in: adds or replaces.
  void entryIs(EntryPtr entry);

  // For the Write in progress, who alone changes the store: null when nothing stands there.
  // The pointer is good until that Write commits.
  const Entry* committed(const EntryLookup& lookup) const;

  // A Write begins by saying all the keys it may touch, before the target hears of any.
  void writeBegin(std::shared_ptr<WriteLog> log);
  void commit(std::span<Change> changes);  // leaves the slots empty
  void writeEnd();                         // reads that begin now see the Write

  EntryPtr entry(const EntryKey& key) const;
  size_t size() const;

 private:
  using Set = absl::flat_hash_set<EntrySlot, EntrySlotHash, EntrySlotEqual>;
  struct KeyOrder {
    using is_transparent = void;
    bool operator()(const EntryPtr& a, const EntryPtr& b) const { return a->key() < b->key(); }
    bool operator()(const EntryPtr& a, const EntryKey& b) const { return a->key() < b; }
    bool operator()(const EntryKey& a, const EntryPtr& b) const { return a < b->key(); }
  };
  using Logs = std::deque<std::shared_ptr<WriteLog>>;

  EntryPtr entryLocked(const EntryLookup& lookup) const;
  void objectIs(const EntryPtr& entry);
  Logs doTakeUnusedLogs();

  mutable std::shared_mutex mutex_;
  Set entries_;
  absl::btree_set<EntryPtr, KeyOrder> objects_;  // the members and groups among them
  uint64_t begun_ = 0;                           // number of the latest Write
  uint64_t ended_ = 0;                           // number of the latest that has been answered
  Logs logs_;  // ascending: those a snapshot needs, and the one in progress
  std::multiset<uint64_t> snapshots_;
};

// The store as it was when the snapshot was made. Short-lived: while it lives, the store remembers
// what each Write replaces. The store outlives it. One thread at a time.
class EntryStore::Snapshot {
 public:
  explicit Snapshot(EntryStore& store);
  ~Snapshot();
  Snapshot(const Snapshot&) = delete;
  Snapshot& operator=(const Snapshot&) = delete;

  EntryPtr entry(const EntryKey& key) const;  // null when there was none

  // One for each lookup, in order.
  void entries(std::span<const EntryLookup> lookups, std::vector<EntryPtr>* out) const;

  // The members (or groups) of a profile, by id.
  std::vector<EntryPtr> objects(uint32_t profileId, bool groups) const;

  // The keys of the table (or profile) that Writes have touched since, with what stood there when
  // the snapshot was made (null: nothing). What the target was seen to hold under these keys does
  // not count.
  using Touched = absl::flat_hash_map<EntrySlot, EntryPtr, EntrySlotHash, EntrySlotEqual>;
  Touched touchedSince(uint32_t tableId) const;

 private:
  EntryPtr entryLocked(const EntryLookup& lookup) const;
  bool objectsAfter(const EntryKey& key, std::vector<EntryPtr>* out) const;

  EntryStore& store_;
  uint64_t seen_;  // Writes up to this number are in the picture
};

}  // namespace pi::fe::proto
