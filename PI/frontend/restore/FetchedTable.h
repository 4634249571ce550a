// The entries of a table as the target holds them, copied at one instant.
#pragma once

#include <optional>

#include "PI/frontend/model/Plans.h"
#include "PI/frontend/store/Entry.h"
#include "PI/frontend/target/TargetSession.h"
#include "PI/pi_tables.h"

namespace pi::fe::proto {

// Owns a fetch result of the target. No lock may be held: the target takes its own. Throws a
// Refusal (INTERNAL) when the target fails.
class FetchedTable {
 public:
  FetchedTable(const TargetSession& session, const TablePlan& table);
  ~FetchedTable();
  FetchedTable(const FetchedTable&) = delete;
  FetchedTable& operator=(const FetchedTable&) = delete;

  size_t size() const;

  // The next entry, without metadata and meter setting, which the target does not fetch; one that
  // points at a member or group is `unresolved`. Null after the last one.
  // Throws a Refusal (INTERNAL) when it does not fit the table, or cannot be understood.
  EntryPtr next();

 private:
  const TargetSession session_;
  const TablePlan& table_;
  pi_table_fetch_res_t* result_ = nullptr;
};

// A PI entry of the table as we keep it, or `unresolved` when it points at a member or group;
// nothing when sizes, action or kind do not fit the table. The metadata are left to fill in.
std::optional<EntryPtr> entryOf(const TablePlan& table, const pi_match_key_t& key,
                                const pi_table_entry_t& given, size_t metadataSize);

// The direct meter's setting that comes with a PI entry; nothing: the default.
std::optional<MeterSetting> meterSettingOf(const TablePlan& table, const pi_table_entry_t& given);

}  // namespace pi::fe::proto
