// One update of a Write, checked against the P4Info and encoded for the target.
#pragma once

#include "PI/frontend/Entry.h"
#include "PI/frontend/P4InfoIndex.h"

namespace pi::fe::proto {

struct CheckedUpdate {
  p4::v1::Update::Type type = p4::v1::Update::UNSPECIFIED;  // INSERT, MODIFY or DELETE
  const TablePlan* table = nullptr;
  const ActionPlan* action = nullptr;  // null: none given (DELETE, or MODIFY that keeps the action)
  EntrySlot slot;                      // DELETE: the key alone
};

// Everything that can be said without knowing which entries there are. Throws a Refusal.
CheckedUpdate checkedUpdate(const P4InfoIndex& index, const p4::v1::Update& update);

// The table an update or query names. Throws a Refusal when it is none of the P4Info's.
const TablePlan& checkedTable(const P4InfoIndex& index, uint32_t tableId);

}  // namespace pi::fe::proto
