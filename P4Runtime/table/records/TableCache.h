// The records of the table entries: the agent's record of truth about each of them, in shared
// memory; they outlive the process. Each stands behind the entry's row, so that row and record
// share every commit.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>

#include "P4Runtime/companion/P4HandleMgr.h"
#include "P4Runtime/pipeline/P4TableInfo.h"
#include "P4Runtime/table/records/RowRecord.h"
#include "platform/lattice/Database.h"
#include "platform/vela/Ptr.h"

namespace P4Runtime {

// Call with the activity lock held. Finds records of tables that the pipeline has, and whose rows
// are ready.
class TableCache : public Vela::RefCounted {
 public:
  // Both outlive this.
  TableCache(const P4TableInfo& tableInfo, const P4HandleMgr& handles)
      : tableInfo_(tableInfo), handles_(handles) {}

  size_t recordCount() const;
  // The row of an entry whose handle is taken; nothing without one.
  std::optional<Lattice::StoredRow> row(const CacheKey& key) const;
  // Has the processor fetch the memory of these entries' rows. Handles of other kinds do no harm.
  void load(std::span<const EntryHandle> handles) const;
  // Nothing when there is no record, or an unreadable one. The record of an entry whose deletion
  // waits for its outcome is found, too.
  std::optional<TableCacheEntry> cache(const CacheKey& key) const;
  bool cacheHas(const CacheKey& key) const;
  // Replaces the record of an entry that has a row; nothing for others. The state is not stored:
  // the batch that wrote the row tells it. Throws Brine::StoreError when the state directory is
  // full; the former record then stands.
  void cacheIs(const TableCacheEntry& record);
  void cacheDel(const CacheKey& key);  // the row stays

  // Visits the committed records of a table; `visit` returns false to stop, and must not write.
  using Visit = std::function<bool(const TableRecordView& record)>;
  void forEachOf(const ResourceId& table, const Visit& visit) const;

 private:
  Lattice::ArTableInterface* readyTable(const ResourceId& table) const;

  const P4TableInfo& tableInfo_;
  const P4HandleMgr& handles_;
};

}  // namespace P4Runtime
