// How long ago packets met entries, as the forwarding plane tells it.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "PI/frontend/base/Refusal.h"
#include "PI/frontend/model/Plans.h"
#include "PI/frontend/store/Entry.h"
#include "PI/frontend/target/TargetSession.h"

namespace pi::fe::proto {

// Asks once for all, which are at most some hundred. No lock may be held: the forwarding plane
// takes its time. Leaves nanoseconds in *times, one an entry, in order; nothing: the forwarding
// plane does not know the entry. Returns the reason when it tells nothing, UNIMPLEMENTED when it
// cannot tell of any entry of the table.
std::optional<Refusal> lastHits(const TargetSession& session, const TablePlan& table,
                                std::span<const Entry* const> entries,
                                std::vector<std::optional<int64_t>>* times);

}  // namespace pi::fe::proto
