// Whether a table's type in the device configuration fits what the P4Info says of the table: rows
// are built by copying each field as long as its column, so the two must agree to the byte.
#pragma once

#include <string>

#include "P4Runtime/pipeline/P4TableInfo.h"

namespace P4Runtime {

// Why rows of `type` cannot be built from the table's PI bytes; names the column. Empty when they
// can.
std::string whyTypeDisagrees(const P4TableInfo& tableInfo, ResourceId table,
                             const Lattice::TableType& type);

}  // namespace P4Runtime
