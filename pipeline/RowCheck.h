// Whether the rows of a device table can be built from what controllers write: the agent copies
// each field of a key, and each parameter of an action, as long as its column and in the byte order
// that the conversion left it in.
#pragma once

#include <string>

#include "pipeline/DeviceConfig.h"
#include "pipeline/TableLayout.h"
#include "platform/lattice/types/TableType.h"

namespace Pipeline {

// Why not, with the name of the column; empty: they can. `table` has fields that agree with its
// type, and `layout` is what the P4Info asks of it.
std::string whyRowsDiffer(const DeviceTable& table, const Lattice::TableType& type,
                          const TableLayout& layout);

}  // namespace Pipeline
