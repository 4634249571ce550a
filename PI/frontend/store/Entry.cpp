// One table entry, member or group in one block of memory.
#include "PI/frontend/store/Entry.h"

#include <absl/hash/hash.h>

#include <cstring>
#include <new>

namespace pi::fe::proto {

size_t EntryKey::hash() const { return absl::HashOf(tableId, priority, bytes); }

static_assert(sizeof(Entry) == 56, "a million are kept");

EntryPtr Entry::make(uint32_t tableId, size_t keySize, size_t actionSize, size_t metadataSize,
                     const std::optional<MeterSetting>& meter) {
  const size_t size = keySize + actionSize + metadataSize;
  void* block = ::operator new(sizeof(Entry) + size + (meter ? sizeof(*meter) : 0));
  auto* entry = new (block) Entry(keySize, actionSize, metadataSize, meter.has_value());
  entry->tableId = tableId;
  if (meter) std::memcpy(entry->bytes() + size, &*meter, sizeof(*meter));
  return EntryPtr(entry);
}

std::optional<MeterSetting> Entry::meter() const {
  if (!hasMeter_) return std::nullopt;
  MeterSetting setting;
  std::memcpy(&setting, bytes() + keySize_ + actionSize_ + metadataSize_, sizeof(setting));
  return setting;
}

// Nobody else can share an entry that only this one holds, and so no atomic change is needed.
void EntryPtr::release() {
  if (entry_ == nullptr) return;
  std::atomic<uint32_t>& references = entry_->references_;
  if (references.load(std::memory_order_acquire) != 1 &&
      references.fetch_sub(1, std::memory_order_acq_rel) != 1) {
    return;
  }
  entry_->~Entry();
  ::operator delete(entry_);
}

}  // namespace pi::fe::proto
