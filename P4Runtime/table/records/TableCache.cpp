#include "P4Runtime/table/records/TableCache.h"

#include <string>
#include <vector>

namespace P4Runtime {

Lattice::ArTableInterface* TableCache::readyTable(const ResourceId& table) const {
  if (table.type != tableResource) return nullptr;
  const auto& interface = tableInfo_.latticeTableInterface(table);
  return interface && interface->ready() ? interface.get() : nullptr;
}

size_t TableCache::recordCount() const {
  size_t count = 0;
  for (const auto& [rid, interface] : tableInfo_.latticeTableInterfaceCollection().values()) {
    if (const auto* table = readyTable(rid)) count += table->rowCount();
  }
  return count;
}

std::optional<Lattice::StoredRow> TableCache::row(const CacheKey& key) const {
  const auto* table = readyTable(key.rid);
  if (!table || handles_.entryHandleToResourceId(key.entryHandle) != key.rid) return std::nullopt;
  return table->storedOf(key.entryHandle, handles_.rowHash(key.entryHandle));
}

void TableCache::load(std::span<const EntryHandle> handles) const {
  handles_.load(handles);
  std::vector<uint32_t> hashes;
  hashes.reserve(handles.size());
  for (auto handle = handles.begin(); handle != handles.end();) {
    const ResourceId rid = handles_.entryHandleToResourceId(*handle);
    hashes.clear();
    for (; handle != handles.end() && handles_.entryHandleToResourceId(*handle) == rid; ++handle) {
      hashes.push_back(handles_.rowHash(*handle));
    }
    if (const auto* table = readyTable(rid)) table->load(hashes);
  }
}

std::optional<TableCacheEntry> TableCache::cache(const CacheKey& key) const {
  auto stored = row(key);
  const bool isDeleted = !stored;
  const auto* table = readyTable(key.rid);
  if (isDeleted && table) stored = table->beingDeleted(key.entryHandle);
  const auto record = stored ? recordOf(key.rid, *stored) : std::nullopt;
  if (!record) return std::nullopt;
  TableCacheEntry entry = entryOf(*record);
  if (isDeleted) entry.entryState = EntryState::pendingToBeDeleted;
  return entry;
}

bool TableCache::cacheHas(const CacheKey& key) const {
  const auto stored = row(key);
  return stored && !stored->attachment.empty();
}

void TableCache::cacheIs(const TableCacheEntry& record) {
  const auto stored = row(record.key);
  if (!stored) return;
  std::string bytes;
  encodeRecord(record, bytes);
  const Lattice::Row same{std::string(stored->key), std::string(stored->value)};
  readyTable(record.key.rid)->rowIs(same, record.key.entryHandle, bytes);
}

void TableCache::cacheDel(const CacheKey& key) {
  const auto stored = row(key);
  if (!stored) return;
  const Lattice::Row same{std::string(stored->key), std::string(stored->value)};
  readyTable(key.rid)->rowIs(same, key.entryHandle);
}

void TableCache::forEachOf(const ResourceId& rid, const Visit& visit) const {
  const auto* table = readyTable(rid);
  if (!table) return;
  table->forEachCommitted([&](const Lattice::StoredRow& row) {
    const auto record = recordOf(rid, row);
    return !record || visit(*record);
  });
}

}  // namespace P4Runtime
