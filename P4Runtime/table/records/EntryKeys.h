// Finds the row, and with it the entry, that stands under a match key.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "P4Runtime/companion/P4HandleMgr.h"
#include "P4Runtime/pipeline/P4TableInfo.h"
#include "P4Runtime/table/records/RowRecord.h"
#include "P4Runtime/table/rows/RowBuilder.h"
#include "P4Runtime/table/rows/WritableTable.h"

namespace P4Runtime {

// Call with the activity lock held; what is handed in outlives this.
class EntryKeys final : public BoundKeys {
 public:
  EntryKeys(P4TableInfo& tableInfo, RowBuilder& builder)
      : tableInfo_(tableInfo), builder_(builder) {}

  // The entry under the key, whose row has the key `rowKey`. Until the row is written again, the
  // handle manager hears the same of this very key without another look-up.
  struct Found {
    std::optional<Lattice::StoredRow> row;
    EntryHandle handle = 0;  // 0 without a row of such an entry
  };
  Found find(const WritableTable& table, const MatchKey& key, const std::string& rowKey) const;

  // As if find() had found this entry.
  void seenIs(const MatchKey& key, EntryHandle handle) const;

  EntryHandle handleOf(uint32_t tableId, std::string_view key, uint32_t priority) const override;

 private:
  // The key that find() saw last, by its place.
  struct Seen {
    const char* key = nullptr;
    uint32_t tableId = 0;
    uint32_t priority = 0;
    EntryHandle handle = 0;
  };

  P4TableInfo& tableInfo_;
  RowBuilder& builder_;
  mutable Seen seen_;
};

}  // namespace P4Runtime
