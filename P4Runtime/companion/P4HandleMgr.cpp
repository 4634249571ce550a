#include "P4Runtime/companion/P4HandleMgr.h"

#include <absl/container/flat_hash_map.h>
#include <absl/container/flat_hash_set.h>

#include <algorithm>
#include <array>
#include <limits>
#include <stdexcept>
#include <utility>

namespace P4Runtime {
namespace {

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

// The table entries' handles. They count up, so that those of a block lie close together.
class EntryHandles {
 public:
  struct Bound {
    uint32_t tableId = 0;  // 0: the handle is free
    uint32_t rowHash = 0;
  };

  Bound* find(EntryHandle handle) {
    const auto block = blocks_.find(handle / blockSize);
    if (block == blocks_.end()) return nullptr;
    Bound& bound = block->second->bound[handle % blockSize];
    return bound.tableId == 0 ? nullptr : &bound;
  }
  void load(EntryHandle handle) const {
    const auto block = blocks_.find(handle / blockSize);
    if (block != blocks_.end()) __builtin_prefetch(&block->second->bound[handle % blockSize]);
  }
  void bind(EntryHandle handle, uint32_t tableId) { maybeBind(handle, {tableId, 0}); }
  bool maybeBind(EntryHandle handle, const Bound& to) {
    auto& block = blocks_[handle / blockSize];
    if (!block) block = std::make_unique<Block>();
    Bound& bound = block->bound[handle % blockSize];
    if (bound.tableId != 0) return false;
    bound = to;
    ++block->taken;
    ++counts_[to.tableId];
    return true;
  }
  void free(EntryHandle handle) {
    Bound* const bound = find(handle);
    if (!bound) return;
    --counts_[bound->tableId];
    *bound = {};
    const auto block = blocks_.find(handle / blockSize);
    if (--block->second->taken == 0) blocks_.erase(block);
  }
  void freeAllBut(const absl::flat_hash_set<uint32_t>& tableIds) {
    if (tableIds.empty()) {
      blocks_.clear();
      counts_.clear();
      return;
    }
    for (auto next = blocks_.begin(); next != blocks_.end();) {
      const auto block = next++;
      for (Bound& bound : block->second->bound) {
        if (bound.tableId == 0 || tableIds.contains(bound.tableId)) continue;
        bound = {};
        --block->second->taken;
      }
      if (block->second->taken == 0) blocks_.erase(block);
    }
    absl::erase_if(counts_, [&](const auto& count) { return !tableIds.contains(count.first); });
  }
  size_t count(uint32_t tableId) const {
    const auto found = counts_.find(tableId);
    return found == counts_.end() ? 0 : found->second;
  }

 private:
  static constexpr size_t blockSize = 1024;
  struct Block {
    size_t taken = 0;
    std::array<Bound, blockSize> bound;
  };
  absl::flat_hash_map<EntryHandle, std::unique_ptr<Block>> blocks_;
  absl::flat_hash_map<uint32_t, size_t> counts_;
};

}  // namespace

struct P4HandleMgr::Impl {
  const BoundKeys* keys = nullptr;
  EntryHandles entries;
  EntryHandle lastHandle = 0;
  EntryHandle reservedUpTo = 0;
  std::function<void(EntryHandle)> reservation;
  IndirectHandles members{0, actionProfileResource};
  IndirectHandles groups{groupMark, groupTableResource};

  IndirectHandles& indirect(EntryHandle handle) { return handle & groupMark ? groups : members; }

  void reserve(EntryHandle next) {
    if (next <= reservedUpTo) return;
    const EntryHandle upTo = next + reservedAtOnce - 1;
    if (reservation) reservation(upTo);
    reservedUpTo = upTo;
  }
};

P4HandleMgr::P4HandleMgr() : impl_(std::make_unique<Impl>()) {}
P4HandleMgr::~P4HandleMgr() = default;

void P4HandleMgr::boundKeysAre(const BoundKeys* keys) { impl_->keys = keys; }

EntryHandle P4HandleMgr::getOrCreateTableEntryHandle(uint32_t tableId, size_t keySize,
                                                     const char* key, uint32_t priority,
                                                     bool* isNew) {
  const EntryHandle bound = getEntryHandleFromMatchKey(tableId, keySize, key, priority);
  if (isNew) *isNew = bound == 0;
  if (bound != 0) return bound;
  const EntryHandle next = impl_->lastHandle + 1;
  impl_->reserve(next);
  impl_->entries.bind(next, tableId);
  return impl_->lastHandle = next;
}

EntryHandle P4HandleMgr::getEntryHandleFromMatchKey(uint32_t tableId, size_t keySize,
                                                    const char* key, uint32_t priority) const {
  if (!impl_->keys) return 0;
  const EntryHandle bound = impl_->keys->handleOf(tableId, {key, keySize}, priority);
  const auto* entry = impl_->entries.find(bound);
  return entry && entry->tableId == tableId ? bound : 0;
}

bool P4HandleMgr::restoreTableEntryHandle(uint32_t tableId, EntryHandle handle, size_t keySize,
                                          const char* key, uint32_t priority) {
  const EntryHandle bound = getEntryHandleFromMatchKey(tableId, keySize, key, priority);
  if (bound != 0) return bound == handle;
  if (handle == 0 || impl_->entries.find(handle)) return false;
  impl_->entries.bind(handle, tableId);
  reserveUpTo(handle);
  return true;
}

bool P4HandleMgr::takeTableEntryHandle(uint32_t tableId, EntryHandle handle, uint32_t rowHash) {
  if (handle == 0 || !impl_->entries.maybeBind(handle, {tableId, rowHash})) return false;
  reserveUpTo(handle);
  return true;
}

void P4HandleMgr::freeTableEntryHandle(EntryHandle handle) { impl_->entries.free(handle); }
void P4HandleMgr::freeTableEntryHandles(std::span<const uint32_t> butOfTables) {
  impl_->entries.freeAllBut({butOfTables.begin(), butOfTables.end()});
}

void P4HandleMgr::load(std::span<const EntryHandle> handles) const {
  for (const EntryHandle handle : handles) impl_->entries.load(handle);
}

void P4HandleMgr::rowHashIs(EntryHandle handle, uint32_t hash) {
  if (auto* bound = impl_->entries.find(handle)) bound->rowHash = hash;
}

uint32_t P4HandleMgr::rowHash(EntryHandle handle) const {
  const auto* bound = impl_->entries.find(handle);
  return bound ? bound->rowHash : 0;
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
  const auto* bound = impl_->entries.find(handle);
  return bound ? ResourceId{tableResource, bound->tableId} : ResourceId{};
}

size_t P4HandleMgr::entryHandleCount(ResourceId rid) const {
  if (rid.type == tableResource) return impl_->entries.count(rid.id);
  const IndirectHandles& handles = rid.type == groupTableResource ? impl_->groups : impl_->members;
  return std::ranges::count(handles.profileOf, rid.id,
                            &std::pair<const uint64_t, uint32_t>::second);
}

}  // namespace P4Runtime
