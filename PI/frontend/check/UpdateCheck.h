// One update of a Write, checked against the P4Info and encoded for the target.
#pragma once

#include "PI/frontend/check/CheckedUpdate.h"
#include "PI/frontend/wire/WireUpdate.h"

namespace pi::fe::proto {

// All checks that need no committed entries. Throws a Refusal.
CheckedUpdate checkedUpdate(const P4InfoIndex& index, const p4::v1::Update& update);

// The same, straight from the bytes of an update that is plain.
CheckedUpdate checkedUpdate(const TablePlan& table, const WireUpdate& update);

}  // namespace pi::fe::proto
