#include "P4Runtime/table/restore/OrphanedRows.h"

#include <algorithm>

#include "platform/scrivel/Trace.h"

namespace P4Runtime {
namespace {

Scrivel::TraceHandle trace("TableImpl");

}  // namespace

OrphanedRows::OrphanedRows(const RestoreTools& tools) : tools_(tools) {
  for (const auto& [rid, interface] : tools_.tableInfo.latticeTableInterfaceCollection().values()) {
    if (rid.type != tableResource && interface->ready()) tables_.push_back({rid, interface});
  }
}

bool OrphanedRows::search(RestoreSlice& slice) {
  for (; table_ < tables_.size(); ++table_) {
    const Table& table = tables_[table_];
    bool isThrough = true;
    const auto visit = [&](const Lattice::StoredRow& row) {
      if (isOrphan(table.rid, row)) found_.push_back({table.rid, std::string(row.key)});
      return isThrough = !slice.isOver();
    };
    table.interface->forEachCommitted(visit, &row_);
    if (!isThrough) return false;
    row_ = {};
  }
  return true;
}

// A row of a table without an entry, or of a profile whose member or group is gone.
bool OrphanedRows::isOrphan(const ResourceId& rid, const Lattice::StoredRow& row) const {
  if (tools_.handles.entryHandleToResourceId(row.entryHandle) == rid) return false;
  const bool isEntry = rid.type == tableResource;
  return isEntry || !tools_.records.has(recordKey(rid, row.entryHandle));
}

size_t OrphanedRows::remove(const std::vector<RowWithoutEntry>& more) {
  const auto isRemoved = [this](const RowWithoutEntry& row) { return remove(row); };
  return static_cast<size_t>(std::ranges::count_if(found_, isRemoved) +
                             std::ranges::count_if(more, isRemoved));
}

// The restore may have rewritten it since, for an entry that stands.
bool OrphanedRows::remove(const RowWithoutEntry& orphan) const {
  const auto& interface = tools_.tableInfo.latticeTableInterface(orphan.rid);
  const auto row = interface->stored(orphan.key);
  if (!row || !isOrphan(orphan.rid, *row)) return false;
  SCRIVEL_TRACE(0, "TableImpl", " no entry stands for a row of ", interface->tableName());
  return interface->rowDel(orphan.key, 0) != 0;
}

}  // namespace P4Runtime
