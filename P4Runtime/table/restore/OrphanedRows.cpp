#include "P4Runtime/table/restore/OrphanedRows.h"

#include <cstring>
#include <string>
#include <vector>

#include "platform/lattice/records/StoreLayout.h"
#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("TableImpl");

// A stored row begins with the entry's handle.
EntryHandle handleOf(Brine::Bytes row) {
  EntryHandle handle = 0;
  if (row.size() >= sizeof handle) std::memcpy(&handle, row.data(), sizeof handle);
  return handle;
}

bool anyEntryFor(const RestoreTools& tools, const ResourceId& rid, EntryHandle handle) {
  return tools.handles.entryHandleToResourceId(handle) == rid ||
         tools.records.stored(recordKey(rid, handle));
}

// Of committed rows.
std::vector<std::string> orphanedKeys(const RestoreTools& tools, const ResourceId& rid,
                                      const std::string& tableName) {
  std::vector<std::string> keys;
  Brine::Store& store = tools.database->store();
  store.forEach(store.table(Lattice::rowTable(tableName)), [&](Brine::Bytes key, Brine::Bytes row) {
    if (!anyEntryFor(tools, rid, handleOf(row))) keys.emplace_back(Brine::asText(key));
    return true;
  });
  return keys;
}

}  // namespace

size_t removeOrphanedRows(const RestoreTools& tools) {
  size_t removed = 0;
  for (const auto& [rid, interface] : tools.tableInfo.latticeTableInterfaceCollection().values()) {
    if (!interface->ready()) continue;
    for (const std::string& key : orphanedKeys(tools, rid, interface->tableName())) {
      // The restore may have just rewritten it, for an entry that stands.
      if (anyEntryFor(tools, rid, interface->rowEntryHandle(key))) continue;
      SCRIVEL_TRACE(0, "TableImpl", " no entry stands for a row of ", interface->tableName());
      if (interface->rowDel(key, 0) != 0) ++removed;
    }
  }
  return removed;
}

}  // namespace P4Runtime
