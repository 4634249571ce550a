// Reads direct counters from the target.
#pragma once

#include <optional>
#include <span>
#include <vector>

#include "PI/frontend/base/Refusal.h"
#include "PI/frontend/model/Plans.h"
#include "PI/frontend/store/Entry.h"
#include "PI/frontend/store/EntryStore.h"
#include "PI/frontend/target/TargetSession.h"
#include "p4/v1/p4runtime.pb.h"

namespace pi::fe::proto {

struct Count {
  p4::v1::CounterData data;  // zeros where the program's counter does not count
  std::optional<Refusal>
      failure;  // INTERNAL: the target does not tell it of an entry that is there
};

// Asks the target once for all, and one by one only when it refuses. No lock may be held: the
// target takes its own. Leaves one count an entry in *counts, in order.
void directCounts(const TargetSession& session, const EntryStore& store, const TablePlan& table,
                  std::span<const Entry* const> entries, std::vector<Count>* counts);

}  // namespace pi::fe::proto
