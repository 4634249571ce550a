#include "P4Runtime/companion/P4HandleMgr.h"

#include <absl/container/flat_hash_map.h>
#include <absl/container/flat_hash_set.h>
#include <absl/hash/hash.h>

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

namespace P4Runtime {
namespace {

struct MatchKey {
  uint32_t tableId;
  uint32_t priority;
  std::string_view bytes;

  friend bool operator==(const MatchKey&, const MatchKey&) = default;
  template <typename H>
  friend H AbslHashValue(H state, const MatchKey& key) {
    return H::combine(std::move(state), key.tableId, key.priority, key.bytes);
  }
};

struct Binding {
  EntryHandle handle = 0;  // 0: the slot is free
  ResourceId rid;
  uint32_t priority = 0;
  std::string bytes;

  MatchKey matchKey() const { return {rid.id, priority, bytes}; }
};

// Table entries count up from 1 and never get this far.
constexpr EntryHandle indirectMark = EntryHandle{1} << 63;
constexpr EntryHandle reservedAtOnce = 65536;
constexpr uint64_t groupMark = uint64_t{1} << 32;
constexpr uint64_t largestId = std::numeric_limits<uint32_t>::max();

// The members, or the groups, of all action profiles.
struct IndirectHandles {
  explicit IndirectHandles(uint64_t mark, ResourceType type) : mark(mark), type(type) {}

  uint64_t alloc(uint32_t actProfId) {
    if (profileOf.size() >= largestId) throw std::length_error("no handle is left");
    do {
      lastId = lastId == largestId ? 1 : lastId + 1;
    } while (profileOf.contains(mark | lastId));
    profileOf.emplace(mark | lastId, actProfId);
    return mark | lastId;
  }
  bool restore(uint32_t actProfId, uint64_t handle) {
    const uint64_t id = handle ^ mark;
    if (id == 0 || id > largestId) return false;
    const auto bound = profileOf.emplace(handle, actProfId).first;
    if (bound->second != actProfId) return false;
    lastId = std::max(lastId, id);
    return true;
  }
  EntryHandle entryHandle(uint64_t handle) const {
    return profileOf.contains(handle) ? indirectMark | handle : 0;
  }

  const uint64_t mark;  // the upper half of each handle
  const ResourceType type;
  absl::flat_hash_map<uint64_t, uint32_t> profileOf;
  uint64_t lastId = 0;  // lower half
};

}  // namespace

// Each binding is stored once, in a slot; the two indexes hold slot numbers.
struct P4HandleMgr::Impl {
  struct KeyOf {
    using is_transparent = void;
    const std::vector<Binding>* slots;
    MatchKey key(uint32_t slot) const { return (*slots)[slot].matchKey(); }
    const MatchKey& key(const MatchKey& key) const { return key; }
    template <typename T>
    size_t operator()(const T& value) const {
      return absl::Hash<MatchKey>()(key(value));
    }
    template <typename A, typename B>
    bool operator()(const A& a, const B& b) const {
      return key(a) == key(b);
    }
  };

  std::vector<Binding> slots;
  std::vector<uint32_t> freeSlots;
  absl::flat_hash_map<EntryHandle, uint32_t> slotOfHandle;
  absl::flat_hash_set<uint32_t, KeyOf, KeyOf> slotOfKey{0, KeyOf{&slots}, KeyOf{&slots}};
  absl::flat_hash_map<uint64_t, size_t> counts;  // by resource
  EntryHandle lastHandle = 0;
  EntryHandle reservedUpTo = 0;
  std::function<void(EntryHandle)> reservation;
  IndirectHandles members{0, actionProfileResource};
  IndirectHandles groups{groupMark, groupTableResource};

  IndirectHandles& indirect(EntryHandle handle) { return handle & groupMark ? groups : members; }
  static uint64_t countKey(ResourceId rid) { return (uint64_t{rid.type} << 32) | rid.id; }

  void reserve(EntryHandle next) {
    if (next <= reservedUpTo) return;
    const EntryHandle upTo = next + reservedAtOnce - 1;
    if (reservation) reservation(upTo);
    reservedUpTo = upTo;
  }

  uint32_t newSlot(EntryHandle handle, const MatchKey& key) {
    uint32_t slot = 0;
    if (freeSlots.empty()) {
      slot = static_cast<uint32_t>(slots.size());
      slots.emplace_back();
    } else {
      slot = freeSlots.back();
      freeSlots.pop_back();
    }
    slots[slot] = {handle, {tableResource, key.tableId}, key.priority, std::string(key.bytes)};
    slotOfHandle.emplace(handle, slot);
    ++counts[countKey(slots[slot].rid)];
    return slot;
  }
};

P4HandleMgr::P4HandleMgr() : impl_(std::make_unique<Impl>()) {}
P4HandleMgr::~P4HandleMgr() = default;

EntryHandle P4HandleMgr::getOrCreateTableEntryHandle(uint32_t tableId, size_t keySize,
                                                     const char* key, uint32_t priority,
                                                     bool* isNew) {
  const MatchKey matchKey{tableId, priority, {key, keySize}};
  const EntryHandle next = impl_->lastHandle + 1;
  impl_->reserve(next);
  const auto slot = impl_->slotOfKey.lazy_emplace(
      matchKey, [&](const auto& place) { place(impl_->newSlot(next, matchKey)); });
  const EntryHandle bound = impl_->slots[*slot].handle;
  if (isNew) *isNew = bound == next;
  impl_->lastHandle = std::max(impl_->lastHandle, bound);
  return bound;
}

EntryHandle P4HandleMgr::getEntryHandleFromMatchKey(uint32_t tableId, size_t keySize,
                                                    const char* key, uint32_t priority) const {
  const auto found = impl_->slotOfKey.find(MatchKey{tableId, priority, {key, keySize}});
  return found == impl_->slotOfKey.end() ? 0 : impl_->slots[*found].handle;
}

bool P4HandleMgr::restoreTableEntryHandle(uint32_t tableId, EntryHandle handle, size_t keySize,
                                          const char* key, uint32_t priority) {
  const EntryHandle bound = getEntryHandleFromMatchKey(tableId, keySize, key, priority);
  if (bound != 0) return bound == handle;
  if (handle == 0 || impl_->slotOfHandle.contains(handle)) return false;
  impl_->slotOfKey.insert(impl_->newSlot(handle, {tableId, priority, {key, keySize}}));
  reserveUpTo(handle);
  return true;
}

void P4HandleMgr::freeTableEntryHandle(EntryHandle handle) {
  const auto found = impl_->slotOfHandle.find(handle);
  if (found == impl_->slotOfHandle.end()) return;
  const uint32_t slot = found->second;
  impl_->slotOfHandle.erase(found);
  impl_->slotOfKey.erase(slot);
  --impl_->counts[Impl::countKey(impl_->slots[slot].rid)];
  impl_->slots[slot] = {};
  impl_->freeSlots.push_back(slot);
}

void P4HandleMgr::reservationHandlerIs(std::function<void(EntryHandle)> handler) {
  impl_->reservation = std::move(handler);
  reservationDel();
}

void P4HandleMgr::reservationDel() { impl_->reservedUpTo = 0; }

void P4HandleMgr::reserveUpTo(EntryHandle handle) {
  impl_->lastHandle = std::max(impl_->lastHandle, handle);
}

MemberHandle P4HandleMgr::allocMemberHandle(uint32_t actProfId) {
  return impl_->members.alloc(actProfId);
}
GroupHandle P4HandleMgr::allocGroupHandle(uint32_t actProfId) {
  return impl_->groups.alloc(actProfId);
}

EntryHandle P4HandleMgr::memberHandleToEntryHandle(MemberHandle handle) const {
  return impl_->members.entryHandle(handle);
}
EntryHandle P4HandleMgr::groupHandleToEntryHandle(GroupHandle handle) const {
  return impl_->groups.entryHandle(handle);
}
bool P4HandleMgr::memberHandleToEntryHandleHas(MemberHandle handle) const {
  return memberHandleToEntryHandle(handle) != 0;
}
bool P4HandleMgr::groupHandleToEntryHandleHas(GroupHandle handle) const {
  return groupHandleToEntryHandle(handle) != 0;
}

bool P4HandleMgr::restoreMemberHandle(uint32_t actProfId, MemberHandle handle) {
  return impl_->members.restore(actProfId, handle);
}
bool P4HandleMgr::restoreGroupHandle(uint32_t actProfId, GroupHandle handle) {
  return impl_->groups.restore(actProfId, handle);
}

void P4HandleMgr::freeMemberHandle(MemberHandle handle) { impl_->members.profileOf.erase(handle); }
void P4HandleMgr::freeGroupHandle(GroupHandle handle) { impl_->groups.profileOf.erase(handle); }

uint64_t P4HandleMgr::cachedHandle(EntryHandle handle) { return handle & ~indirectMark; }

void P4HandleMgr::freeEntryHandle(EntryHandle handle) {
  if ((handle & indirectMark) == 0) return freeTableEntryHandle(handle);
  const uint64_t cached = cachedHandle(handle);
  return (cached & groupMark) != 0 ? freeGroupHandle(cached) : freeMemberHandle(cached);
}

bool P4HandleMgr::entryHandleToResourceIdHas(EntryHandle handle) const {
  return entryHandleToResourceId(handle) != ResourceId{};
}

ResourceId P4HandleMgr::entryHandleToResourceId(EntryHandle handle) const {
  if ((handle & indirectMark) != 0) {
    const IndirectHandles& handles = impl_->indirect(handle);
    const auto found = handles.profileOf.find(cachedHandle(handle));
    if (found == handles.profileOf.end()) return {};
    return {handles.type, found->second};
  }
  const auto found = impl_->slotOfHandle.find(handle);
  return found == impl_->slotOfHandle.end() ? ResourceId{} : impl_->slots[found->second].rid;
}

size_t P4HandleMgr::entryHandleCount(ResourceId rid) const {
  const auto found = impl_->counts.find(Impl::countKey(rid));
  return found == impl_->counts.end() ? 0 : found->second;
}

}  // namespace P4Runtime
