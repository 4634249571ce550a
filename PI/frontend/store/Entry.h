// One table entry, member or group as the front end keeps it: a single block of memory with the PI
// bytes of key and action behind a small header. A million entries are kept, so every byte counts.
#pragma once

#include <atomic>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>

namespace pi::fe::proto {

class EntryPtr;

// The meaning of an entry's action bytes.
enum class EntryKind : uint8_t {
  action,        // PI action data
  keyAlone,      // none: to delete the entry, or to change it and keep its action
  toMember,      // a reference (PI/frontend/store/ProfileObjects.h)
  toGroup,       // a reference
  actionSet,     // hidden members and group, and the set (PI/frontend/store/ProfileObjects.h)
  unresolved,    // a reference without an id, as the target shows it
  memberObject,  // a member itself: PI action data
  groupObject,   // a group itself: the p4.v1.ActionProfileGroup as it was written
};

// A direct meter's setting, in the meter's unit; rates per second.
struct MeterSetting {
  uint64_t cir = 0;
  uint64_t pir = 0;
  uint32_t cburst = 0;
  uint32_t pburst = 0;
  bool operator==(const MeterSetting&) const = default;
};

// The identity of an entry. The bytes belong to the caller.
struct EntryKey {
  uint32_t tableId = 0;
  uint32_t priority = 0;
  std::string_view bytes;  // PI match key

  size_t hash() const;
  auto operator<=>(const EntryKey&) const = default;
};

// Threads: filled in by one thread; in the store it is constant, and any thread may read it.
// Errors: only make() throws, when there is no memory. Lives as long as an EntryPtr holds it.
class Entry {
 public:
  // Sizes in bytes. The bytes of key, action data and metadata are left for the caller to fill in.
  static EntryPtr make(uint32_t tableId, size_t keySize, size_t actionSize, size_t metadataSize,
                       const std::optional<MeterSetting>& meter = std::nullopt);

  EntryKey key() const { return {tableId, priority, {bytes(), keySize_}}; }
  uint8_t* keyData() { return reinterpret_cast<uint8_t*>(bytes()); }
  const uint8_t* keyData() const { return reinterpret_cast<const uint8_t*>(bytes()); }
  uint8_t* actionData() { return keyData() + keySize_; }
  const uint8_t* actionData() const { return keyData() + keySize_; }
  size_t actionSize() const { return actionSize_; }
  char* metadataData() { return bytes() + keySize_ + actionSize_; }
  std::string_view metadata() const { return {bytes() + keySize_ + actionSize_, metadataSize_}; }
  bool hasMetadata() const { return metadataSize_ != 0 || controllerMetadata != 0; }
  std::optional<MeterSetting> meter() const;  // nothing: the default
  bool isObject() const {
    return kind == EntryKind::memberObject || kind == EntryKind::groupObject;
  }

  uint64_t handle = 0;  // the target's
  uint64_t controllerMetadata = 0;
  uint32_t tableId = 0;
  uint32_t priority = 0;
  uint32_t actionId = 0;
  uint32_t position = 0;  // among the entries of its table; set by the store, under its lock
  EntryKind kind = EntryKind::action;
  bool isConst = false;  // the target's own: controllers may not change or delete it

 private:
  friend class EntryPtr;
  Entry(size_t keySize, size_t actionSize, size_t metadataSize, bool hasMeter)
      : hasMeter_(hasMeter),
        keySize_(static_cast<uint32_t>(keySize)),
        actionSize_(static_cast<uint32_t>(actionSize)),
        metadataSize_(static_cast<uint32_t>(metadataSize)) {}
  char* bytes() { return reinterpret_cast<char*>(this + 1); }
  const char* bytes() const { return reinterpret_cast<const char*>(this + 1); }

  bool hasMeter_;  // its setting is behind the metadata
  std::atomic<uint32_t> references_{0};
  uint32_t keySize_;
  uint32_t actionSize_;
  uint32_t metadataSize_;
};

// Shares an entry; the last one frees it.
class EntryPtr {
 public:
  EntryPtr() = default;
  explicit EntryPtr(Entry* entry) : entry_(entry) { take(); }
  EntryPtr(const EntryPtr& other) : entry_(other.entry_) { take(); }
  EntryPtr(EntryPtr&& other) noexcept : entry_(std::exchange(other.entry_, nullptr)) {}
  EntryPtr& operator=(EntryPtr other) noexcept {
    std::swap(entry_, other.entry_);
    return *this;
  }
  ~EntryPtr() { release(); }

  Entry* get() const { return entry_; }
  Entry& operator*() const { return *entry_; }
  Entry* operator->() const { return entry_; }
  explicit operator bool() const { return entry_ != nullptr; }

 private:
  void take() {
    if (entry_ != nullptr) entry_->references_.fetch_add(1, std::memory_order_relaxed);
  }
  void release();

  Entry* entry_ = nullptr;
};

// An entry with the hash of its key, which is costly to compute. The element of our hash tables.
struct EntrySlot {
  EntryPtr entry;
  size_t hash = 0;
};
struct EntryLookup {
  EntryKey key;
  size_t hash = 0;
};

// Stands for any entry whose key has that hash.
struct EntryHash {
  size_t hash = 0;
};

struct EntrySlotHash {
  using is_transparent = void;
  size_t operator()(const EntryHash& any) const { return any.hash; }
  size_t operator()(const EntrySlot& slot) const { return slot.hash; }
  size_t operator()(const EntryLookup& lookup) const { return lookup.hash; }
};
struct EntrySlotEqual {
  using is_transparent = void;
  bool operator()(const EntrySlot& a, const EntryHash& b) const { return a.hash == b.hash; }
  bool operator()(const EntryHash& a, const EntrySlot& b) const { return a.hash == b.hash; }
  bool operator()(const EntrySlot& a, const EntrySlot& b) const {
    return a.hash == b.hash && a.entry->key() == b.entry->key();
  }
  bool operator()(const EntrySlot& a, const EntryLookup& b) const {
    return a.hash == b.hash && a.entry->key() == b.key;
  }
  bool operator()(const EntryLookup& a, const EntrySlot& b) const { return (*this)(b, a); }
};

}  // namespace pi::fe::proto
