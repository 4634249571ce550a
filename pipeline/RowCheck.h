// Whether the rows of a device table can be built from controllers' entries: the agent copies
// each field of a key, and each parameter of an action, as long as its column and in the byte order
// that the conversion left it in.
#pragma once

#include "pipeline/DeviceConfig.h"
#include "pipeline/TableLayout.h"
#include "platform/lattice/types/TableType.h"
#include "platform/vela/Outcome.h"

namespace Pipeline {

// A failure names the column. `table` has fields that agree with its type, and `layout` is the
// P4Info's demand on it.
Vela::Outcome checkRows(const DeviceTable& table, const Lattice::TableType& type,
                        const TableLayout& layout);

}  // namespace Pipeline
