// Reads direct counters from the target.
#pragma once

#include "PI/frontend/Entry.h"
#include "PI/frontend/EntryStore.h"
#include "PI/frontend/Plans.h"
#include "PI/frontend/TargetSession.h"

namespace pi::fe::proto {

// No lock may be held: the target takes its own. Zeros where the program's counter does not count.
// Throws a Refusal (INTERNAL) when the target does not answer for an entry that is there.
p4::v1::CounterData directCount(const TargetSession& session, const EntryStore& store,
                                const TablePlan& table, const Entry& entry);

}  // namespace pi::fe::proto
