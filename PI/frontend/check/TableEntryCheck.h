// A table entry of an update, checked against the P4Info and encoded for the target.
#pragma once

#include "PI/frontend/check/CheckedUpdate.h"

namespace pi::fe::proto {

// Leaves type and hash to the caller. Throws a Refusal.
CheckedUpdate checkedTableEntry(const P4InfoIndex& index, const p4::v1::TableEntry& given,
                                p4::v1::Update::Type type);

}  // namespace pi::fe::proto
