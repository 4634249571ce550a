// Whether the rows of a table can stay when the table gets another type.
#pragma once

#include "platform/lattice/types/TableType.h"

namespace Lattice {

// Whether each row of `former` is a row of `next`, byte for byte and with the same meaning: `next`
// has the same columns, and all actions of `former`. It may have more actions, and other names for
// them. Any thread.
bool keepsRows(const TableType& former, const TableType& next);

}  // namespace Lattice
