// A table entry of an update, checked against the P4Info and encoded for the target.
#pragma once

#include "PI/frontend/check/CheckedUpdate.h"
#include "PI/frontend/wire/WireUpdate.h"

namespace pi::fe::proto {

// Leaves type and hash to the caller. Throws a Refusal.
CheckedUpdate checkedTableEntry(const P4InfoIndex& index, const p4::v1::TableEntry& given,
                                p4::v1::Update::Type type);

// The table of a plain update, as nearly all are: of an entry with a key and, but for a MODIFY or
// DELETE, an action of its own, in a table whose entries can be written. Null for another.
const TablePlan* tableOfPlain(const P4InfoIndex& index, const WireUpdate& given);
// The same as above for a plain one.
CheckedUpdate checkedTableEntry(const TablePlan& table, const WireUpdate& given);

}  // namespace pi::fe::proto
