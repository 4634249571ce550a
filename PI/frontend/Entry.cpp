// One table entry in one block of memory.
#include "PI/frontend/Entry.h"

#include <new>

#include "absl/hash/hash.h"

namespace pi::fe::proto {

size_t EntryKey::hash() const { return absl::HashOf(tableId, priority, bytes); }

EntryPtr Entry::make(uint32_t tableId, size_t keySize, size_t actionSize, size_t metadataSize) {
  void* block = ::operator new(sizeof(Entry) + keySize + actionSize + metadataSize);
  auto* entry = new (block) Entry(keySize, actionSize, metadataSize);
  entry->tableId = tableId;
  return EntryPtr(entry);
}

void EntryPtr::release() {
  if (entry_ == nullptr) return;
  if (entry_->references_.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  entry_->~Entry();
  ::operator delete(entry_);
}

}  // namespace pi::fe::proto
