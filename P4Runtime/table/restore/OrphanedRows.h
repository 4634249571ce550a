// Rows that no entry stands for. They would otherwise stay in the forwarding plane for good.
#pragma once

#include <cstddef>

#include "P4Runtime/table/restore/RestoreTools.h"

namespace P4Runtime {

// Removes the committed rows whose entry has neither handle nor record; returns how many there
// were. Call with the activity lock held, once all handles are bound again.
size_t removeOrphanedRows(const RestoreTools& tools);

}  // namespace P4Runtime
