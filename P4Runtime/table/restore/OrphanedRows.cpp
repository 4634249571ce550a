#include "P4Runtime/table/restore/OrphanedRows.h"

#include <string>
#include <vector>

#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("TableImpl");

// A row of a table without a record of an entry, or of a profile whose member or group is gone.
bool isOrphan(const RestoreTools& tools, const ResourceId& rid, const Lattice::StoredRow& row) {
  if (tools.handles.entryHandleToResourceId(row.entryHandle) == rid) return false;
  const bool isEntry = rid.type == tableResource;
  return isEntry || !tools.records.has(recordKey(rid, row.entryHandle));
}

}  // namespace

size_t removeOrphanedRows(const RestoreTools& tools) {
  size_t removed = 0;
  for (const auto& [rid, interface] : tools.tableInfo.latticeTableInterfaceCollection().values()) {
    if (!interface->ready()) continue;
    std::vector<std::string> keys;
    interface->forEachCommitted([&](const Lattice::StoredRow& row) {
      if (isOrphan(tools, rid, row)) keys.emplace_back(row.key);
      return true;
    });
    for (const std::string& key : keys) {
      // The restore may have just rewritten it, for an entry that stands.
      const auto row = interface->stored(key);
      if (!row || !isOrphan(tools, rid, *row)) continue;
      SCRIVEL_TRACE(0, "TableImpl", " no entry stands for a row of ", interface->tableName());
      if (interface->rowDel(key, 0) != 0) ++removed;
    }
  }
  return removed;
}

}  // namespace P4Runtime
