// The records of all programmed entries: the three entry caches, and beside them the bytes that the
// PI library keeps with an entry, member or group.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "P4Runtime/table/records/EntryCache.h"
#include "P4Runtime/table/records/TableCache.h"

namespace P4Runtime {

// Where the caches stand in the store.
inline constexpr const char* cachePath = "p4runtime/cache/";

// The key of the record of an entry, member or group.
inline CacheKey recordKey(const ResourceId& rid, EntryHandle handle) {
  return {rid, P4HandleMgr::cachedHandle(handle)};
}

// Threads: call with the activity lock held.
// Errors: throws Brine::StoreError when the state directory is full; the former record then stands.
// While the caches are not mounted, functions do nothing and find nothing, or say otherwise.
// Lifetime: all that is handed in outlives it. Caches stay valid until letGo().
class EntryRecords {
 public:
  // All outlive this; without a store the caches are never mounted.
  EntryRecords(Brine::Store* store, const P4TableInfo& tableInfo, const P4HandleMgr& handles)
      : store_(store), tableInfo_(tableInfo), handles_(handles) {}

  void mount();  // the caches; call with a store
  void letGo();  // of the caches; their records stay
  bool isMounted() const { return tableCache_ != nullptr; }
  bool isEmpty() const;  // whatever tables the pipeline has; call while the caches are mounted
  // The caches were mounted, and are not any more.
  bool isLetGo() const { return letGo_; }

  // Null until the caches are mounted.
  TableCache* tableCache() const { return tableCache_.get(); }
  ActionProfileMemberCache* memberCache() const { return memberCache_.get(); }
  ActionProfileGroupCache* groupCache() const { return groupCache_.get(); }

  bool has(const CacheKey& key) const;
  // Asserts that the resource is a table, an action profile or its groups.
  void recordDel(const CacheKey& key);
  void delAll();  // members, groups and the bytes beside all records; entries go with their rows

  // The bytes of the PI library for which a record has no room; empty removes them.
  void metadataIs(const CacheKey& key, std::string_view metadata);
  // The sequence number of the last write here or of a member's or group's record.
  uint64_t lastChange() const { return store_ ? store_->nextSequence() - 1 : 0; }
  std::string metadata(const CacheKey& key) const;
  void metadataDel(Brine::Bytes storedKey);  // call while the caches are mounted

 private:
  Brine::Store* const store_;
  const P4TableInfo& tableInfo_;
  const P4HandleMgr& handles_;
  Vela::Ptr<TableCache> tableCache_;
  Vela::Ptr<ActionProfileMemberCache> memberCache_;
  Vela::Ptr<ActionProfileGroupCache> groupCache_;
  std::optional<Brine::TableNumber> metadataTable_;
  bool letGo_ = false;
};

}  // namespace P4Runtime
