// Remembers, across restarts, which entries came with the pipeline and with which action, so that a
// new pipeline can take its predecessor's back.
#pragma once

#include <string>

#include "P4Runtime/pipeline/P4TableInfo.h"
#include "P4Runtime/table/records/CacheKey.h"
#include "platform/brine/Store.h"

namespace P4Runtime {

class TableImpl;

// Pairs of hexadecimal characters to bytes; a last single character is a byte of its own.
std::string bytesFromHexadecimal(const std::string& text);

// Kept beside the entry caches, keyed like their records. Call with the activity lock held, outside
// a batch, while the caches are mounted. What it changes is committed with the caller's scope.
class ConstantEntries {
 public:
  explicit ConstantEntries(TableImpl& tableImpl) : tableImpl_(tableImpl) {}

  // Before a restore: forgets the entries that the pipeline no longer has, whose rows the restore
  // then removes, and gives those whose action differs from the former pipeline's the new action.
  // Entries that the pipelines agree on stay as they are, also if a controller has changed them.
  void followPipeline();
  // The entry of the pipeline has this handle.
  void programmedIs(const ResourceId& table, EntryHandle handle,
                    const P4TableInfoConstEntry& entry);
  // The same, if the entry of that handle has the action; else it is taken for a controller's.
  void maybeProgrammedIs(const ResourceId& table, EntryHandle handle,
                         const P4TableInfoConstEntry& entry);
  void forget(const CacheKey& key);

 private:
  Brine::Store& store() const;
  Brine::TableNumber table() const;
  void follow(const CacheKey& key, const std::string& formerAction);
  void takeBack(const CacheKey& key);

  TableImpl& tableImpl_;
};

}  // namespace P4Runtime
