// The fetch data of a table: its cached entries, as the PI library reads them.
#pragma once

#include "P4Runtime/table/TableImpl.h"
#include "P4Runtime/table/target/FetchBuffer.h"

namespace P4Runtime {

// Call both with the activity lock held.
// Room for `entries` entries of the table: each key has the table's size, and each action at most
// that of the table's largest action.
size_t computeFetchDataSize(const TableImpl& tableImpl, const ResourceId& rid, size_t entries);
// Returns the number of entries that it has put. A record that cannot be one of this table's is
// passed over. Call while the caches are mounted.
size_t populateFetchData(const TableImpl& tableImpl, const ResourceId& rid, FetchBuffer& buffer);

}  // namespace P4Runtime
