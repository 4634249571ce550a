// The caches of action-profile members and groups: the agent's record of truth about each of them,
// in shared memory; they outlive the process. Call with the activity lock held. Other processes
// read them, and see whole commits only.
#pragma once

#include <algorithm>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "P4Runtime/table/records/CacheRecords.h"
#include "platform/brine/Store.h"
#include "platform/vela/Ptr.h"

namespace P4Runtime {

// A cache of one kind of record. Throws Brine::StoreError when the state directory is full; the
// former record then stands.
template <typename Record>
class EntryCache : public Vela::RefCounted {
 public:
  // `store` outlives this.
  EntryCache(Brine::Store& store, const std::string& tableName)
      : store_(store), table_(store.table(tableName)) {}

  size_t recordCount() const { return store_.count(table_); }

  // Inserts the record, or replaces the one with the same key.
  void cacheIs(const Record& record) {
    record.serialize(store_.reserve(table_, storedKey(record.key), record.serializeLen()).data());
  }
  void cacheDel(const CacheKey& key) { store_.erase(table_, storedKey(key)); }
  void cacheDelAll() { store_.eraseAll(table_); }

  // Nothing when there is no record, or an unreadable one.
  std::optional<Record> cache(const CacheKey& key) const {
    const auto stored = store_.get(table_, storedKey(key));
    Record record;
    if (!stored || !record.deserialize(stored->data(), stored->size())) return std::nullopt;
    return record;
  }
  // The record as it is stored; valid until the next write of the store.
  std::optional<Brine::Bytes> stored(const CacheKey& key) const {
    return store_.get(table_, storedKey(key));
  }
  void storedIs(const CacheKey& key, Brine::Bytes bytes) {
    store_.put(table_, storedKey(key), bytes);
  }

  // Visits the committed records, as they are stored; `visit` returns false to stop, and must not
  // write. They come in no order. With a `position`, the next walk goes on where this one stopped.
  using Visit = std::function<bool(Brine::Bytes storedKey, Brine::Bytes record)>;
  void forEach(const Visit& visit, Brine::Store::Position* position = nullptr) const {
    const auto each = [&](const Brine::Record& record) { return visit(record.key, record.value); };
    store_.forEachRecord(table_, each, position);
  }
  // Of one resource; the handles come in ascending order.
  void forEachOf(const ResourceId& rid, const Visit& visit) const {
    const auto prefix = storedKeyPrefix(rid);
    std::vector<std::pair<Brine::Bytes, Brine::Bytes>> records;
    forEach([&](Brine::Bytes key, Brine::Bytes record) {
      if (key.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), key.begin())) {
        records.emplace_back(key, record);
      }
      return true;
    });
    std::ranges::sort(records, [](const auto& a, const auto& b) {
      return std::ranges::lexicographical_compare(a.first, b.first);
    });
    for (const auto& [key, record] : records) {
      if (!visit(key, record)) return;
    }
  }
  void storedKeyDel(Brine::Bytes key) { store_.erase(table_, key); }

  // Not backed up beyond the shared memory.
  bool hasBackupSupport() const { return false; }

 private:
  Brine::Store& store_;
  const Brine::TableNumber table_;
};

using ActionProfileMemberCache = EntryCache<ActionProfileMemberCacheEntry>;
using ActionProfileGroupCache = EntryCache<ActionProfileGroupCacheEntry>;

}  // namespace P4Runtime
