// Finds the newest version of a record by its key: a hash set of slots, in the writer's memory.
#pragma once

#include <absl/container/flat_hash_set.h>

#include <cstdint>
#include <cstring>
#include <span>
#include <utility>

#include "platform/brine/Layout.h"
#include "platform/brine/Store.h"
#include "platform/brine/StoreFile.h"

namespace Brine {

// Of one table. An element is a slot and 32 bits of its key's hash, so that a look-up reads hardly
// any slot but the one that it finds.
class KeyIndex {
 public:
  explicit KeyIndex(const StoreFile& file) : file_(&file), seed_(file.head().seed) {}

  uint32_t hash(Bytes key) const { return static_cast<uint32_t>(hashOf(key, seed_)); }
  Ref find(Bytes key, uint32_t hash) const {  // 0: no record
    const auto found = slots_.find(Probe{file_, key, hash});
    return found == slots_.end() ? 0 : found->ref;
  }
  Ref find(Bytes key) const { return find(key, hash(key)); }
  // Of the records whose keys have that hash, the owner's.
  Ref findOwner(uint32_t hash, uint64_t owner) const {
    const auto found = slots_.find(OwnerProbe{file_, owner, hash});
    return found == slots_.end() ? 0 : found->ref;
  }
  // Has the processor fetch the slots of the keys with these hashes. Of two keys with one hash, the
  // other one's slot may be fetched.
  void load(std::span<const uint32_t> hashes) const {
    for (const uint32_t hash : hashes) slots_.prefetch(HashProbe{hash});
    for (const uint32_t hash : hashes) {
      const auto found = slots_.find(HashProbe{hash});
      if (found != slots_.end()) file_->loadSlot(found->ref);
    }
  }
  // Enters `ref` as the slot of the key's record; 0 removes the key. Returns the former slot.
  Ref enter(Bytes key, Ref ref) { return enter(key, hash(key), ref); }
  Ref enter(Bytes key, uint32_t hash, Ref ref) {
    const Probe probe{file_, key, hash};
    if (ref == 0) return remove(probe);
    const auto at = slots_.lazy_emplace(probe, [&](const auto& make) { make(Slot{hash, 0}); });
    return std::exchange(at->ref, ref);
  }
  size_t size() const { return slots_.size(); }
  // Asks for the memory that a look-up of a key with that hash will need, when it is soon to come.
  void loadSlot(uint32_t hash) const { slots_.prefetch(OwnerProbe{file_, 0, hash}); }
  void reserve(size_t records) { slots_.reserve(records); }

 private:
  struct Slot {
    uint32_t hash = 0;
    mutable Ref ref = 0;  // of the same key whichever it is
  };
  struct Probe {
    const StoreFile* file;
    Bytes key;
    uint32_t hash;
  };
  struct OwnerProbe {
    const StoreFile* file;
    uint64_t owner;
    uint32_t hash;
  };
  struct HashProbe {  // any key that has the hash
    uint32_t hash;
  };
  struct Hash {
    using is_transparent = void;
    static size_t of(uint32_t hash) { return hash * size_t{0x9e3779b97f4a7c15}; }
    size_t operator()(const Slot& slot) const { return of(slot.hash); }
    size_t operator()(const Probe& probe) const { return of(probe.hash); }
    size_t operator()(const OwnerProbe& probe) const { return of(probe.hash); }
    size_t operator()(const HashProbe& probe) const { return of(probe.hash); }
  };
  struct Equal {
    using is_transparent = void;
    bool operator()(const Slot& a, const Slot& b) const { return a.ref == b.ref; }
    bool operator()(const Slot& slot, const Probe& probe) const {
      if (slot.hash != probe.hash) return false;
      const SlotHead& head = probe.file->slot(slot.ref);
      return head.keySize == probe.key.size() &&
             std::memcmp(head.key(), probe.key.data(), head.keySize) == 0;
    }
    bool operator()(const Probe& probe, const Slot& slot) const { return (*this)(slot, probe); }
    bool operator()(const Slot& slot, const OwnerProbe& probe) const {
      return slot.hash == probe.hash && probe.file->slot(slot.ref).owner == probe.owner;
    }
    bool operator()(const OwnerProbe& probe, const Slot& slot) const {
      return (*this)(slot, probe);
    }
    bool operator()(const Slot& slot, const HashProbe& probe) const {
      return slot.hash == probe.hash;
    }
    bool operator()(const HashProbe& probe, const Slot& slot) const {
      return slot.hash == probe.hash;
    }
  };
  Ref remove(const Probe& probe) {
    const auto found = slots_.find(probe);
    if (found == slots_.end()) return 0;
    const Ref former = found->ref;
    slots_.erase(found);
    return former;
  }

  const StoreFile* file_;
  uint64_t seed_;
  absl::flat_hash_set<Slot, Hash, Equal> slots_;
};

}  // namespace Brine
