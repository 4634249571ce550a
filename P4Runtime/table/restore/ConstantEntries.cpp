#include "P4Runtime/table/restore/ConstantEntries.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "P4Runtime/table/restore/Obstacle.h"
#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("ConstantEntries");

constexpr const char* tableName = "p4runtime/cache/constant";
// One record, "push": the push whose initial entries were programmed, in decimal.
constexpr const char* initialTableName = "p4runtime/cache/initial";

// An action as it is remembered: its id in decimal, a blank, its data.
std::string actionOf(const P4TableInfoConstEntry& entry) {
  return std::to_string(entry.actionId) + ' ' + bytesFromHexadecimal(entry.actionParams);
}

bool isOf(const P4TableInfoConstEntry& entry, const TableCacheEntry& record) {
  const std::string key = bytesFromHexadecimal(entry.key);
  return static_cast<int32_t>(entry.priority) == record.matchKeyPriority &&
         std::ranges::equal(key, record.matchKeyData,
                            [](char a, uint8_t b) { return static_cast<uint8_t>(a) == b; });
}

void actionIs(TableCacheEntry& record, const P4TableInfoConstEntry& entry) {
  const std::string data = bytesFromHexadecimal(entry.actionParams);
  record.entryType = TableCacheEntry::directEntry;
  record.indirectHandle = 0;
  record.actionId = entry.actionId;
  record.actionDataDelAll();
  for (size_t i = 0; i < data.size(); ++i) record.actionDataIs(i, static_cast<uint8_t>(data[i]));
}

}  // namespace

std::string bytesFromHexadecimal(const std::string& text) {
  std::string bytes;
  for (size_t at = 0; at < text.size(); at += 2) {
    bytes += static_cast<char>(std::strtoul(text.substr(at, 2).c_str(), nullptr, 16));
  }
  return bytes;
}

Brine::Store& ConstantEntries::store() const { return tools_.database->store(); }
Brine::TableNumber ConstantEntries::table() const { return store().table(tableName); }

void ConstantEntries::programmedIs(const ResourceId& rid, EntryHandle handle,
                                   const P4TableInfoConstEntry& entry) {
  if (!tools_.database) return;
  store().put(table(), storedKey({rid, handle}), Brine::asBytes(actionOf(entry)));
}

void ConstantEntries::maybeProgrammedIs(const ResourceId& rid, EntryHandle handle,
                                        const P4TableInfoConstEntry& entry) {
  if (!tools_.records.isMounted() || store().get(table(), storedKey({rid, handle}))) return;
  const auto record = tools_.records.tableCache()->cache({rid, handle});
  if (!record) return;
  TableCacheEntry same = *record;
  actionIs(same, entry);
  if (same == *record) programmedIs(rid, handle, entry);
}

void ConstantEntries::forget(const CacheKey& key) { store().erase(table(), storedKey(key)); }

void ConstantEntries::forgetAll() { store().eraseAll(table()); }

bool ConstantEntries::initialEntriesAreDue(uint64_t push) const {
  if (!tools_.database || !store().hasTable(initialTableName)) return true;
  const auto done = store().get(store().table(initialTableName), Brine::asBytes("push"));
  return !done || Brine::asText(*done) != std::to_string(push);
}

void ConstantEntries::initialEntriesAreDone(uint64_t push) {
  if (!tools_.database || !initialEntriesAreDue(push)) return;
  store().put(store().table(initialTableName), Brine::asBytes("push"),
              Brine::asBytes(std::to_string(push)));
}

void ConstantEntries::followPipeline() {
  if (!tools_.records.isMounted()) return;
  std::vector<std::pair<CacheKey, std::string>> known;  // the store must not change meanwhile
  store().forEach(table(), [&](Brine::Bytes key, Brine::Bytes action) {
    known.emplace_back(cacheKeyOf(key), Brine::asText(action));
    return true;
  });
  bindAll(known);
  for (const auto& [key, formerAction] : known) follow(key, formerAction);
}

// Nothing is restored yet, so that the handles are not known.
void ConstantEntries::bindAll(const std::vector<std::pair<CacheKey, std::string>>& known) {
  std::map<ResourceId, std::set<EntryHandle>> handles;
  for (const auto& [key, action] : known) handles[key.rid].insert(key.entryHandle);
  for (const auto& [rid, of] : handles) {
    const auto& interface = tools_.tableInfo.latticeTableInterface(rid);
    if (!interface || !interface->ready()) continue;
    interface->forEachCommitted([&](const Lattice::StoredRow& row) {
      if (of.contains(row.entryHandle)) bind(rid, row, interface->keyHash(row.key));
      return true;
    });
  }
}

void ConstantEntries::bind(const ResourceId& rid, const Lattice::StoredRow& row, uint32_t rowHash) {
  const auto record = recordOf(rid, row);
  if (!record || tools_.handles.entryHandleToResourceIdHas(row.entryHandle)) return;
  const auto* key = reinterpret_cast<const char*>(record->matchKeyData.data());
  tools_.handles.restoreTableEntryHandle(rid.id, row.entryHandle, record->matchKeyData.size(), key,
                                         record->matchKeyPriority);
  tools_.handles.rowHashIs(row.entryHandle, rowHash);
}

void ConstantEntries::follow(const CacheKey& key, const std::string& formerAction) {
  auto record = tools_.records.tableCache()->cache(key);
  if (!record) return forget(key);  // a controller has deleted it
  const auto& entries = tools_.tableInfo.constEntries(key.rid).entry();
  const auto entry =
      std::ranges::find_if(entries, [&](const auto& one) { return isOf(one, *record); });
  if (entry == entries.end()) return takeBack(key);
  if (actionOf(*entry) == formerAction) return;
  SCRIVEL_TRACE(1, "ConstantEntries", " another action for entry ", key.entryHandle, " of ",
                tools_.tableInfo.nameOf(key.rid));
  actionIs(*record, *entry);
  tools_.mode.rewrite(key.entryHandle);
  write(*record);
  programmedIs(key.rid, key.entryHandle, *entry);
}

// Row and record in one, so that followers hear of one change. A record that makes no row is left
// to the restore.
void ConstantEntries::write(const TableCacheEntry& entry) {
  const RestoreMode::Running running(tools_.mode);
  std::string bytes;
  encodeRecord(entry, bytes);
  const Lattice::StoredRow as{.attachment = bytes, .entryHandle = entry.key.entryHandle};
  const auto why = obstacleTo([&] {
    tools_.entryWriter.restoreEntry(tools_.tables.require(entry.key.rid),
                                    *recordOf(entry.key.rid, as));
    return Obstacle();
  });
  if (why) tools_.records.tableCache()->cacheIs(entry);
}

void ConstantEntries::takeBack(const CacheKey& key) {
  SCRIVEL_TRACE(1, "ConstantEntries", " the pipeline no longer has entry ", key.entryHandle, " of ",
                tools_.tableInfo.nameOf(key.rid));
  forget(key);
  if (const auto row = tools_.records.tableCache()->row(key)) {
    tools_.tableInfo.latticeTableInterface(key.rid)->rowDel(std::string(row->key), key.entryHandle);
  }
  tools_.records.metadataIs(key, {});
  tools_.failures.failureDel(key.entryHandle);
  tools_.handles.reserveUpTo(key.entryHandle);
  tools_.handles.freeTableEntryHandle(key.entryHandle);
}

}  // namespace P4Runtime
