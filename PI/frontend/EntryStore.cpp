// The committed entries, members and groups of a device.
#include "PI/frontend/EntryStore.h"

#include <algorithm>
#include <mutex>
#include <string>

namespace pi::fe::proto {

void EntryStore::entryIs(EntryPtr entry) {
  EntrySlot slot{std::move(entry), 0};
  slot.hash = slot.entry->key().hash();
  const std::unique_lock lock(mutex_);
  objectIs(slot.entry);
  entries_.erase(EntryLookup{slot.entry->key(), slot.hash});
  entries_.insert(std::move(slot));
}

// The order is by key, so the newer one takes the place of the one with the same key.
void EntryStore::objectIs(const EntryPtr& entry) {
  if (!entry->isObject()) return;
  objects_.erase(entry->key());
  objects_.insert(entry);
}

const Entry* EntryStore::committed(const EntryLookup& lookup) const {
  const auto found = entries_.find(lookup);
  return found == entries_.end() ? nullptr : found->entry.get();
}

void EntryStore::writeBegin(std::shared_ptr<WriteLog> log) {
  const std::unique_lock lock(mutex_);
  log->number_ = ++begun_;
  logs_.push_back(std::move(log));
}

void EntryStore::commit(std::span<Change> changes) {
  const std::unique_lock lock(mutex_);
  for (Change& change : changes) {
    EntryPtr former;
    if (change.isDelete) {
      if (change.slot.entry->isObject()) objects_.erase(change.slot.entry->key());
    } else {
      objectIs(change.slot.entry);
    }
    const auto found = entries_.find(EntryLookup{change.slot.entry->key(), change.slot.hash});
    if (found != entries_.end()) {
      former = found->entry;
      // The key stays what it is, so the slot may take the new entry in place.
      if (!change.isDelete) const_cast<EntrySlot&>(*found).entry = std::move(change.slot.entry);
    } else if (!change.isDelete) {
      entries_.insert(std::move(change.slot));
    }
    if (change.isDelete && found != entries_.end()) entries_.erase(found);
    if (!change.touched->committed) change.touched->original = std::move(former);
    change.touched->committed = true;
  }
}

void EntryStore::writeEnd() {
  Logs unused;  // freed after the lock
  const std::unique_lock lock(mutex_);
  ended_ = begun_;
  unused = doTakeUnusedLogs();
}

EntryPtr EntryStore::entry(const EntryKey& key) const {
  const EntryLookup lookup{key, key.hash()};
  const std::shared_lock lock(mutex_);
  return entryLocked(lookup);
}

size_t EntryStore::size() const {
  const std::shared_lock lock(mutex_);
  return entries_.size();
}

EntryPtr EntryStore::entryLocked(const EntryLookup& lookup) const {
  const auto found = entries_.find(lookup);
  return found == entries_.end() ? EntryPtr() : found->entry;
}

EntryStore::Logs EntryStore::doTakeUnusedLogs() {
  const uint64_t oldest = snapshots_.empty() ? ended_ : std::min(*snapshots_.begin(), ended_);
  Logs unused;
  while (!logs_.empty() && logs_.front()->number_ <= oldest) {
    unused.push_back(std::move(logs_.front()));
    logs_.pop_front();
  }
  return unused;
}

EntryStore::Snapshot::Snapshot(EntryStore& store) : store_(store) {
  const std::unique_lock lock(store_.mutex_);
  seen_ = store_.ended_;
  store_.snapshots_.insert(seen_);
}

EntryStore::Snapshot::~Snapshot() {
  Logs unused;  // freed after the lock
  const std::unique_lock lock(store_.mutex_);
  store_.snapshots_.erase(store_.snapshots_.find(seen_));
  unused = store_.doTakeUnusedLogs();
}

EntryPtr EntryStore::Snapshot::entry(const EntryKey& key) const {
  const EntryLookup lookup{key, key.hash()};
  const std::shared_lock lock(store_.mutex_);
  return entryLocked(lookup);
}

void EntryStore::Snapshot::entries(std::span<const EntryLookup> lookups,
                                   std::vector<EntryPtr>* out) const {
  const std::shared_lock lock(store_.mutex_);
  for (const EntryLookup& lookup : lookups) out->push_back(entryLocked(lookup));
}

// The earliest Write since the snapshot that changed the entry knows what stood there then.
EntryPtr EntryStore::Snapshot::entryLocked(const EntryLookup& lookup) const {
  for (const auto& log : store_.logs_) {
    if (log->number_ <= seen_) continue;
    const auto found = log->touched().find(lookup);
    if (found != log->touched().end() && found->second.committed) return found->second.original;
  }
  return store_.entryLocked(lookup);
}

// Writes may go on between two chunks; what they touched is put right at the end.
std::vector<EntryPtr> EntryStore::Snapshot::objects(uint32_t profileId, bool groups) const {
  std::vector<EntryPtr> walked;
  const uint32_t kind = groups ? 1 : 0;
  for (bool more = true; more;) {
    const std::string after(walked.empty() ? std::string_view() : walked.back()->key().bytes);
    more = objectsAfter({profileId, kind, after}, &walked);
  }
  const Touched touched = touchedSince(profileId);
  std::erase_if(walked, [&](const EntryPtr& entry) {
    return touched.contains(EntryLookup{entry->key(), entry->key().hash()});
  });
  for (const auto& [slot, original] : touched) {
    if (original && original->priority == kind) walked.push_back(original);
  }
  std::sort(walked.begin(), walked.end(), KeyOrder());
  return walked;
}

bool EntryStore::Snapshot::objectsAfter(const EntryKey& key, std::vector<EntryPtr>* out) const {
  constexpr size_t kChunk = 256;
  const std::shared_lock lock(store_.mutex_);
  auto object = store_.objects_.upper_bound(key);
  for (size_t n = 0; n < kChunk; ++n, ++object) {
    if (object == store_.objects_.end()) return false;
    const EntryKey next = (*object)->key();
    if (next.tableId != key.tableId || next.priority != key.priority) return false;
    out->push_back(*object);
  }
  return true;
}

EntryStore::Snapshot::Touched EntryStore::Snapshot::touchedSince(uint32_t tableId) const {
  Touched result;
  const std::shared_lock lock(store_.mutex_);
  for (const auto& log : store_.logs_) {
    if (log->number_ <= seen_) continue;
    for (const auto& [slot, touched] : log->touched()) {
      if (slot.entry->tableId != tableId) continue;
      const auto [added, isNew] = result.try_emplace(slot);
      if (isNew) added->second = entryLocked({slot.entry->key(), slot.hash});
    }
  }
  return result;
}

}  // namespace pi::fe::proto
