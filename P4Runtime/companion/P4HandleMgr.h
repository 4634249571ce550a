// Allocates entry, member and group handles and keeps, both ways, the mapping between an entry
// handle and its entry, member or group.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string_view>

#include "P4Runtime/companion/ResourceId.h"
#include "platform/vela/Ptr.h"

namespace P4Runtime {

// Knows which entry stands under a match key. Call with the activity lock held.
class BoundKeys {
 public:
  virtual ~BoundKeys() = default;
  virtual EntryHandle handleOf(uint32_t tableId, std::string_view key,
                               uint32_t priority) const = 0;  // 0: none does
};

// Match keys are PI bytes: a size and that many bytes; with the table id and the priority they name
// an entry. A table entry's handle is never used twice in the life of a state directory: handles
// are reserved by blocks, and new ones start above every block of an earlier process. The entry
// handle of a member or group follows from its member or group handle, so that it is the same after
// a restart.
// Threads: call with the activity lock held. Errors: std::length_error when no handle is left, and
// exceptions of the reservation handler; nothing is given out then. Lifetime: shared; the objects
// that the reservation handler uses outlive it.
class P4HandleMgr : public Vela::RefCounted {
 public:
  P4HandleMgr();
  ~P4HandleMgr() override;

  // Where the bindings of match keys stand; it outlives this, or null is given. Without it no key
  // is bound.
  void boundKeysAre(const BoundKeys* keys);

  // The handle already bound to the match key, or a new one, which the entry that is then written
  // binds to it; says which, if asked.
  EntryHandle getOrCreateTableEntryHandle(uint32_t tableId, size_t keySize, const char* key,
                                          uint32_t priority, bool* isNew = nullptr);
  // 0 when the match key has no handle.
  EntryHandle getEntryHandleFromMatchKey(uint32_t tableId, size_t keySize, const char* key,
                                         uint32_t priority) const;
  EntryHandle matchKeyToEntryHandle(uint32_t tableId, std::string_view key,
                                    uint32_t priority) const {
    return getEntryHandleFromMatchKey(tableId, key.size(), key.data(), priority);
  }
  // Takes a handle of an earlier process. False when the handle or the match key is taken by
  // another; nothing changes then.
  bool restoreTableEntryHandle(uint32_t tableId, EntryHandle handle, size_t keySize,
                               const char* key, uint32_t priority);
  // The same for an entry whose row stands under its own match key, and rowHashIs(): false when the
  // handle is taken already, whichever entry has it.
  bool takeTableEntryHandle(uint32_t tableId, EntryHandle handle, uint32_t rowHash);
  void freeTableEntryHandle(EntryHandle handle);  // nothing when it is free already
  // All but those of the given tables; none of them is given out again.
  void freeTableEntryHandles(std::span<const uint32_t> butOfTables = {});
  // Has the processor fetch the memory that the next three functions read.
  void load(std::span<const EntryHandle> handles) const;
  // The hash of the key of the entry's row, by which the row is found. 0 until it is set, and for a
  // free handle.
  void rowHashIs(EntryHandle handle, uint32_t hash);
  uint32_t rowHash(EntryHandle handle) const;
  // The next handle will be above this one.
  void reserveUpTo(EntryHandle handle);
  // Called before a handle is given out, with the highest handle that may be given out from now on;
  // the handler stores it with the entry. When the handler throws, no handle is given out.
  void reservationHandlerIs(std::function<void(EntryHandle upTo)> handler);
  // The stored reservation may be lost: the handler gets it again.
  void reservationDel();

  // A new handle, mapped to its entry handle. Throws std::length_error when all are taken.
  MemberHandle allocMemberHandle(uint32_t actProfId);
  GroupHandle allocGroupHandle(uint32_t actProfId);
  bool memberHandleToEntryHandleHas(MemberHandle handle) const;
  bool groupHandleToEntryHandleHas(GroupHandle handle) const;
  EntryHandle memberHandleToEntryHandle(MemberHandle handle) const;  // 0 when it is free
  EntryHandle groupHandleToEntryHandle(GroupHandle handle) const;
  // Take a handle of an earlier process, or of this one, whose server may have moved. False for an
  // impossible handle or one of another profile.
  bool restoreMemberHandle(uint32_t actProfId, MemberHandle handle);
  bool restoreGroupHandle(uint32_t actProfId, GroupHandle handle);
  void freeMemberHandle(MemberHandle handle);  // nothing when it is free already
  void freeGroupHandle(GroupHandle handle);
  // The member or group handle behind an entry handle; a table entry has its own handle.
  static constexpr uint64_t cachedHandle(EntryHandle handle) { return handle & ~indirectMark; }

  void freeEntryHandle(EntryHandle handle);  // of an entry, member or group
  bool entryHandleToResourceIdHas(EntryHandle handle) const;
  ResourceId entryHandleToResourceId(EntryHandle handle) const;  // {} when free
  size_t entryHandleCount(ResourceId rid) const;

 private:
  static constexpr EntryHandle indirectMark = EntryHandle{1} << 63;  // of a member or group

  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace P4Runtime
