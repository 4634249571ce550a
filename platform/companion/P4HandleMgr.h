// Allocates entry handles and keeps, both ways, the mapping between a handle and the match key it
// is bound to. Call with the activity lock held.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include "platform/companion/ResourceId.h"
#include "platform/vela/Ptr.h"

namespace P4Runtime {

// Match keys are PI bytes: a size and that many bytes; with the table id and the priority they name
// an entry. A handle is never used twice in the life of a state directory's entries: new handles
// start above every restored one.
class P4HandleMgr : public Vela::RefCounted {
 public:
  P4HandleMgr();
  ~P4HandleMgr() override;

  // The handle already bound to the match key, or a new one bound to it; says which, if asked.
  EntryHandle getOrCreateTableEntryHandle(uint32_t tableId, size_t keySize, const char* key,
                                          uint32_t priority, bool* isNew = nullptr);
  // 0 when the match key has no handle.
  EntryHandle getEntryHandleFromMatchKey(uint32_t tableId, size_t keySize, const char* key,
                                         uint32_t priority) const;
  EntryHandle matchKeyToEntryHandle(uint32_t tableId, std::string_view key,
                                    uint32_t priority) const {
    return getEntryHandleFromMatchKey(tableId, key.size(), key.data(), priority);
  }
  // Binds a handle of an earlier process. False when the handle or the match key is taken by
  // another; nothing changes then.
  bool restoreTableEntryHandle(uint32_t tableId, EntryHandle handle, size_t keySize,
                               const char* key, uint32_t priority);
  void freeTableEntryHandle(EntryHandle handle);  // nothing when it is free already
  // The next handle will be above this one.
  void reserveUpTo(EntryHandle handle);

  bool entryHandleToResourceIdHas(EntryHandle handle) const;
  ResourceId entryHandleToResourceId(EntryHandle handle) const;  // {} when free
  size_t entryHandleCount(ResourceId rid) const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace P4Runtime
