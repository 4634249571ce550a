// Remembers, across restarts, which entries came with the pipeline and with which action, so that a
// new pipeline can take its predecessor's back.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "P4Runtime/table/restore/RestoreTools.h"

namespace P4Runtime {

// Pairs of hexadecimal characters to bytes; a last single character is a byte of its own.
std::string bytesFromHexadecimal(const std::string& text);

// Kept beside the entry caches, keyed like their records. Call with the activity lock held, outside
// a batch, while the caches are mounted. Its changes are committed with the caller's scope.
class ConstantEntries {
 public:
  // The tools outlive this.
  explicit ConstantEntries(const RestoreTools& tools) : tools_(tools) {}

  // Call before a restore. Entries that the pipeline no longer has are forgotten; the restore then
  // removes their rows. Entries whose action differs from the former pipeline's get the new action.
  // Entries that the pipelines agree on stay as they are, also if a controller has changed them.
  void followPipeline();
  // The entry of the pipeline has this handle.
  void programmedIs(const ResourceId& table, EntryHandle handle,
                    const P4TableInfoConstEntry& entry);
  // The same, if the entry of that handle has the action; else the entry counts as a controller's.
  void maybeProgrammedIs(const ResourceId& table, EntryHandle handle,
                         const P4TableInfoConstEntry& entry);
  void forget(const CacheKey& key);
  void forgetAll();
  // The initial entries of the pipeline, which are programmed once: whether those are due with
  // which a push began its entries.
  bool initialEntriesAreDue(uint64_t push) const;
  void initialEntriesAreDone(uint64_t push);

 private:
  Brine::Store& store() const;
  Brine::TableNumber table() const;
  void bindAll(const std::vector<std::pair<CacheKey, std::string>>& known);
  void bind(const ResourceId& rid, const Lattice::StoredRow& row, uint32_t rowHash);
  void follow(const CacheKey& key, const std::string& formerAction);
  void write(const TableCacheEntry& entry);
  void takeBack(const CacheKey& key);

  const RestoreTools& tools_;
};

}  // namespace P4Runtime
