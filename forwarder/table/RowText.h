// Rows as lines of text.
#pragma once

#include <string>
#include <string_view>

#include "platform/lattice/types/TableType.h"

namespace Forwarder {

class ProgrammedTable;

// "vrf_id=1 ipv4_dst=10.0.0.0/8 -> action=set_nexthop nexthop_id=7". Bytes that do not have the
// layout of the type (which may be null) are shown in hex.
std::string rowText(const Lattice::TableType* type, std::string_view key, std::string_view value);
std::string keyText(const Lattice::TableType* type, std::string_view key);  // the first half

// Each row the table holds, a line "TABLE KEY COLUMNS -> VALUE COLUMNS", in the order of the keys.
std::string dumpText(const ProgrammedTable& table);

}  // namespace Forwarder
