// The entries of a table as the target holds them, copied at one instant.
#pragma once

#include <optional>

#include "PI/frontend/Entry.h"
#include "PI/frontend/Plans.h"
#include "PI/frontend/TargetSession.h"
#include "PI/pi_tables.h"

namespace pi::fe::proto {

// Owns a fetch result of the target. No lock may be held: the target takes its own. Throws a
// Refusal (INTERNAL) when the target does not answer.
class FetchedTable {
 public:
  FetchedTable(const TargetSession& session, const TablePlan& table);
  ~FetchedTable();
  FetchedTable(const FetchedTable&) = delete;
  FetchedTable& operator=(const FetchedTable&) = delete;

  size_t size() const;

  // The next entry, without metadata, which the target does not fetch; null after the last one.
  // Throws a Refusal (INTERNAL) when it does not fit the table, or cannot be understood.
  EntryPtr next();

 private:
  const TargetSession session_;
  const TablePlan& table_;
  pi_table_fetch_res_t* result_ = nullptr;
};

// A PI entry of the table as we keep it; nothing when sizes, action or kind do not fit the table.
std::optional<EntryPtr> entryOf(const TablePlan& table, const pi_match_key_t& key,
                                const pi_table_entry_t& given, size_t metadataSize);

}  // namespace pi::fe::proto
