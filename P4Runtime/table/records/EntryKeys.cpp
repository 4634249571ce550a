#include "P4Runtime/table/records/EntryKeys.h"

#include <utility>

namespace P4Runtime {

// Where a row holds no priority, entries that differ in nothing else would share one.
EntryKeys::Found EntryKeys::find(const WritableTable& table, const MatchKey& key,
                                 const std::string& rowKey) const {
  Found found{.row = table.interface.stored(rowKey)};
  const auto record = found.row ? recordOf(table.rid, *found.row) : std::nullopt;
  if (record && record->matchKeyPriority == key.priority) found.handle = found.row->entryHandle;
  seenIs(key, found.handle);
  return found;
}

void EntryKeys::seenIs(const MatchKey& key, EntryHandle handle) const {
  seen_ = {key.bytes.data(), key.tableId, key.priority, handle};
}

EntryHandle EntryKeys::handleOf(uint32_t tableId, std::string_view key, uint32_t priority) const {
  const Seen seen = std::exchange(seen_, {});
  if (seen.key == key.data() && seen.tableId == tableId && seen.priority == priority) {
    return seen.handle;
  }
  const ResourceId rid{tableResource, tableId};
  const auto& interface = tableInfo_.latticeTableInterface(rid);
  const auto& constructor = tableInfo_.rowConstructor(rid);
  const bool isKnown = interface && interface->ready() && constructor &&
                       !tableInfo_.unprogrammableHas(rid) &&
                       key.size() == tableInfo_.fieldBitwidths(rid).encodedSize();
  if (!isKnown) return 0;
  const WritableTable table{.rid = rid,
                            .widths = tableInfo_.fieldBitwidths(rid),
                            .constructor = *constructor,
                            .interface = *interface,
                            .needsPriority = tableInfo_.priorityNeeded(rid)};
  const MatchKey matchKey{.tableId = tableId, .priority = priority, .bytes = key};
  const EntryHandle handle = find(table, matchKey, builder_.entryRowKey(table, matchKey)).handle;
  seen_ = {};
  return handle;
}

}  // namespace P4Runtime
