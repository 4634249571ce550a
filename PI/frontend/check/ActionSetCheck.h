// A one-shot action set of a table entry, checked against the P4Info.
#pragma once

#include "PI/frontend/model/Plans.h"
#include "PI/frontend/names/NamePins.h"

namespace pi::fe::proto {

// For a table whose profile has a selector. Throws a Refusal.
void checkActionSet(const TablePlan& table, const p4::v1::ActionProfileActionSet& set,
                    const Naming& naming = {});

// Of a checked set: as it is kept and read back, numbers in their shortest form.
std::string canonicalBytes(const TablePlan& table, const p4::v1::ActionProfileActionSet& set);

}  // namespace pi::fe::proto
