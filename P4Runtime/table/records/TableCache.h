// The entry caches: the agent's record of truth about each entry, member and group, in shared
// memory; they outlive the process. Call with the activity lock held. Other processes read them,
// and see whole commits only.
#pragma once

#include <algorithm>
#include <functional>
#include <optional>
#include <string>

#include "P4Runtime/table/records/CacheRecords.h"
#include "platform/brine/Store.h"
#include "platform/vela/Ptr.h"

namespace P4Runtime {

// A cache of one kind of record. Call with the activity lock held. Throws Brine::StoreError when
// the state directory is full; the former record then stands. The store outlives it.
template <typename Record>
class EntryCache : public Vela::RefCounted {
 public:
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
  // write. The prefix chooses a resource; the handles come in ascending order.
  using Visit = std::function<bool(Brine::Bytes storedKey, Brine::Bytes record)>;
  void forEach(const Visit& visit, Brine::Bytes from = {}) const {
    store_.forEach(table_, visit, from);
  }
  void forEachOf(const ResourceId& rid, const Visit& visit) const {
    const auto prefix = storedKeyPrefix(rid);
    const auto within = [&](Brine::Bytes key, Brine::Bytes record) {
      return key.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), key.begin()) &&
             visit(key, record);
    };
    store_.forEach(table_, within, prefix);
  }
  void storedKeyDel(Brine::Bytes key) { store_.erase(table_, key); }

  // Not backed up beyond the shared memory.
  bool hasBackupSupport() const { return false; }

 private:
  Brine::Store& store_;
  const Brine::TableNumber table_;
};

using TableCache = EntryCache<TableCacheEntry>;
using ActionProfileMemberCache = EntryCache<ActionProfileMemberCacheEntry>;
using ActionProfileGroupCache = EntryCache<ActionProfileGroupCacheEntry>;

}  // namespace P4Runtime
