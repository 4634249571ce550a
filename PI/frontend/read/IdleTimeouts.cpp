// The idle time-outs of entries.
#include "PI/frontend/read/IdleTimeouts.h"

#include "PI/frontend/store/EntityRows.h"

namespace pi::fe::proto {

int64_t IdleTimeouts::of(const TablePlan& table, const Entry& entry) {
  const TablePlan* timeouts = table.idleTimeouts;
  if (timeouts == nullptr) return 0;
  const auto [known, isNew] = tables_.try_emplace(timeouts);
  Rows& rows = known->second;
  if (isNew) {
    for (const auto& page : snapshot_.table(timeouts->id).pages) {
      for (const EntryPtr& row : page->entries) {
        if (row) rows[{row->key().bytes, row->priority}] = idleTimeoutOf(*timeouts, *row);
      }
    }
  }
  const auto found = rows.find({entry.key().bytes, entry.priority});
  return found == rows.end() ? 0 : found->second;
}

}  // namespace pi::fe::proto
