// The committed entries, members and groups of a device.
#include "PI/frontend/store/EntryStore.h"

#include <algorithm>
#include <utility>

namespace pi::fe::proto {

void EntryStore::entryIs(EntryPtr entry) {
  const size_t hash = entry->key().hash();
  EntrySlot slot{std::move(entry), hash};
  entriesAre({&slot, 1});
}

void EntryStore::entriesAre(std::span<EntrySlot> slots) {
  std::vector<EntryPtr> gone;  // freed after the lock
  const std::lock_guard lock(mutex_);
  for (const EntrySlot& slot : slots) entries_.prefetch(slot);
  for (EntrySlot& slot : slots) enterLocked(std::move(slot), &gone);
}

void EntryStore::enterLocked(EntrySlot slot, std::vector<EntryPtr>* gone) {
  EntryPages& pages = pagesOf(*slot.entry);
  const auto [at, isNew] = entries_.insert(slot);
  if (isNew) return pages.add(snapshots_, std::move(slot.entry));
  gone->push_back(pages.replace(snapshots_, *at->entry, slot.entry));
  const_cast<EntrySlot&>(*at).entry = std::move(slot.entry);  // of the same key
}

void EntryStore::reserve(size_t more) {
  const std::lock_guard lock(mutex_);
  entries_.reserve(entries_.size() + more);
}

void EntryStore::keepTables(std::span<const uint32_t> tableIds, const P4InfoIndex& model) {
  absl::flat_hash_set<uint64_t> lists;
  for (const uint32_t id : tableIds) lists.insert(listOf(id, false));
  std::vector<EntryPages> gone;  // freed after the lock
  const std::lock_guard lock(mutex_);
  model_ = &model;
  for (auto list = pages_.begin(); list != pages_.end();) {
    const auto at = list++;
    if (lists.contains(at->first)) continue;
    for (const auto& page : at->second.list()->pages) {
      for (const EntryPtr& entry : page->entries) {
        if (entry) entries_.erase(EntryLookup{entry->key(), entry->key().hash()});
      }
    }
    gone.push_back(std::move(at->second));
    pages_.erase(at);
  }
}

const Entry* EntryStore::committed(const EntryLookup& lookup) const {
  if (!kept_.empty()) {
    const auto kept = kept_.find(lookup);
    if (kept != kept_.end()) return kept->second ? nullptr : kept->first.entry.get();
  }
  const auto found = entries_.find(lookup);
  return found == entries_.end() ? nullptr : found->entry.get();
}

std::vector<EntrySlot> EntryStore::slotsOf(uint32_t tableId) const {
  std::vector<EntrySlot> slots;
  const auto pages = pages_.find(listOf(tableId, false));
  if (pages != pages_.end()) {
    for (const auto& page : pages->second.list()->pages) {
      for (const EntryPtr& entry : page->entries) {
        if (!entry) continue;
        EntrySlot slot{entry, entry->key().hash()};
        if (!kept_.contains(slot)) slots.push_back(std::move(slot));
      }
    }
  }
  for (const auto& [slot, isDelete] : kept_) {
    if (!isDelete && slot.entry->tableId == tableId) slots.push_back(slot);
  }
  return slots;
}

void EntryStore::loadSlot(size_t hash) const { entries_.prefetch(EntryHash{hash}); }

const Entry* EntryStore::loadEntry(size_t hash) const {
  const auto found = entries_.find(EntryHash{hash});
  if (found == entries_.end()) return nullptr;
  const Entry* entry = found->entry.get();
  __builtin_prefetch(entry);
  return entry;
}

void EntryStore::loadPlace(const Entry& entry) const {
  const auto pages = pages_.find(listOf(entry));
  if (pages != pages_.end()) pages->second.load(entry.position);
}

void EntryStore::keep(std::span<Change> changes) {
  for (Change& change : changes) {
    kept_.erase(EntryLookup{change.slot.entry->key(), change.slot.hash});
    kept_.emplace(std::move(change.slot), change.isDelete);
  }
}

void EntryStore::forgetKept() { kept_.clear(); }

void EntryStore::commit(std::span<Change> changes) {
  std::vector<EntryPtr> gone;  // freed after the lock
  gone.reserve(changes.size() + kept_.size());
  const std::lock_guard lock(mutex_);
  for (const auto& [slot, isDelete] : std::exchange(kept_, {})) {
    applyLocked({slot, isDelete}, &gone);
  }
  for (Change& change : changes) applyLocked(std::move(change), &gone);
}

void EntryStore::applyLocked(Change change, std::vector<EntryPtr>* gone) {
  EntryPages& pages = pagesOf(*change.slot.entry);
  const auto found = entries_.find(EntryLookup{change.slot.entry->key(), change.slot.hash});
  if (found == entries_.end()) {
    if (change.isDelete) return;
    pages.add(snapshots_, change.slot.entry);
    entries_.insert(std::move(change.slot));
  } else if (change.isDelete) {
    gone->push_back(pages.remove(snapshots_, *found->entry));
    entries_.erase(found);
  } else {
    gone->push_back(pages.replace(snapshots_, *found->entry, change.slot.entry));
    // The key stays as it is, so that the slot may take the new entry in place.
    const_cast<EntrySlot&>(*found).entry = std::move(change.slot.entry);
  }
}

EntryPtr EntryStore::entry(const EntryKey& key) const {
  const EntryLookup lookup{key, key.hash()};
  const std::lock_guard lock(mutex_);
  return entryLocked(lookup);
}

size_t EntryStore::size() const {
  const std::lock_guard lock(mutex_);
  return entries_.size();
}

EntryPtr EntryStore::entryLocked(const EntryLookup& lookup) const {
  const auto found = entries_.find(lookup);
  return found == entries_.end() ? EntryPtr() : found->entry;
}

EntryStore::Snapshot::Snapshot(EntryStore& store, std::span<const EntryLookup> lookups)
    : store_(store) {
  found_.reserve(lookups.size());
  const std::lock_guard lock(store_.mutex_);
  for (const EntryLookup& lookup : lookups) found_.push_back(store_.entryLocked(lookup));
  lists_.reserve(store_.pages_.size());
  for (const auto& [number, pages] : store_.pages_) lists_.emplace(number, pages.list());
  model_ = store_.model_;
  number_ = ++store_.snapshots_.latest;
  store_.snapshots_.newestAlive = number_;
  store_.alive_.insert(number_);
}

// From here on the store may change pages in place again, which nobody reads any more.
EntryStore::Snapshot::~Snapshot() {
  const std::lock_guard lock(store_.mutex_);
  store_.alive_.erase(number_);
  store_.snapshots_.newestAlive = store_.alive_.empty() ? 0 : *store_.alive_.rbegin();
}

const EntryPages::List& EntryStore::Snapshot::table(uint32_t tableId) const {
  return list(listOf(tableId, false));
}

std::vector<const Entry*> EntryStore::Snapshot::entries(uint32_t tableId) const {
  return entriesOf(table(tableId));
}

std::vector<const Entry*> EntryStore::Snapshot::entriesOf(const EntryPages::List& list) {
  std::vector<const Entry*> entries;
  entries.reserve(list.pages.size() * EntryPages::kPageEntries);
  for (const auto& page : list.pages) {
    for (const EntryPtr& entry : page->entries) {
      if (entry) entries.push_back(entry.get());
    }
  }
  return entries;
}

const Entry* EntryStore::Snapshot::onlyEntry(uint32_t tableId) const {
  for (const auto& page : table(tableId).pages) {
    for (const EntryPtr& entry : page->entries) {
      if (entry) return entry.get();
    }
  }
  return nullptr;
}

std::vector<const Entry*> EntryStore::Snapshot::objects(uint32_t profileId, bool groups) const {
  std::vector<const Entry*> result = entriesOf(list(listOf(profileId, groups)));
  std::sort(result.begin(), result.end(),
            [](const Entry* a, const Entry* b) { return a->key() < b->key(); });
  return result;
}

const EntryPages::List& EntryStore::Snapshot::list(uint64_t number) const {
  static const EntryPages::List kNone;
  const auto found = lists_.find(number);
  return found == lists_.end() ? kNone : *found->second;
}

}  // namespace pi::fe::proto
