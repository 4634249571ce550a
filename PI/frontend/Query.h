// One element of a Read, checked against the P4Info.
#pragma once

#include "PI/frontend/Entry.h"
#include "PI/frontend/P4InfoIndex.h"

namespace pi::fe::proto {

struct Query {
  enum class Kind { allTables, table, oneEntry, defaultEntry };

  Kind kind = Kind::allTables;
  const TablePlan* table = nullptr;  // null: all tables
  EntryPtr key;                      // oneEntry, or a table narrowed to a match; else null
  // Filters; 0 and empty take everything.
  uint32_t actionId = 0;
  uint32_t priority = 0;
  uint64_t controllerMetadata = 0;
  std::string metadata;

  bool takes(const Entry& entry) const;
};

// Throws a Refusal: INVALID_ARGUMENT, or UNIMPLEMENTED for what cannot be read here.
Query checkedQuery(const P4InfoIndex& index, const p4::v1::Entity& entity);

}  // namespace pi::fe::proto
