// Direct meters and counters in updates: checks, and settings encoded for the target.
#pragma once

#include "PI/frontend/check/CheckedUpdate.h"

namespace pi::fe::proto {

// Checks the meter setting and the count that an INSERT or MODIFY of a table entry brings. Throws a
// Refusal.
void checkDirectResources(const TablePlan& table, const p4::v1::TableEntry& entry,
                          p4::v1::Update::Type type);

// The counts that a checked table entry sets; nothing: they begin at 0, or go on.
std::optional<Counts> givenCounts(const p4::v1::TableEntry& entry, p4::v1::Update::Type type);

// The setting that a checked table entry brings; nothing: the default.
std::optional<MeterSetting> meterSetting(const TablePlan& table, const p4::v1::TableEntry& entry);

// The plan of the table's default entry, which has direct resources. Throws a Refusal
// (UNIMPLEMENTED) where it has none; `resource` is "counter", "meter".
const TablePlan& tableOfDefaultResources(const TablePlan& table, const char* resource);

// Throws a Refusal (UNIMPLEMENTED) when the program names none.
void requireDefaultAction(const TablePlan& table);
// The program's own default action as an entry of the default entry's table; its key alone when
// the program names none. Throws a Refusal.
EntryPtr programsDefault(const TablePlan& table, const std::optional<MeterSetting>& meter,
                         NamePins* names);

// Leave type and hash to the caller. Throw a Refusal.
CheckedUpdate checkedDirectMeter(const P4InfoIndex& index, const p4::v1::DirectMeterEntry& given,
                                 p4::v1::Update::Type type);
CheckedUpdate checkedDirectCounter(const P4InfoIndex& index,
                                   const p4::v1::DirectCounterEntry& given,
                                   p4::v1::Update::Type type);

}  // namespace pi::fe::proto
