// The agent's cache records and rows in shared memory, and whether they fit together.
#pragma once

#include <string>
#include <vector>

#include "tests/support/Pipeline.h"
#include "tests/support/Views.h"

namespace TestSupport {

// Of one commit.
struct StoredState {
  View caches;  // as a controller reads them: hidden members and groups as one-shot sets, and the
                // meters that stand in the rows
  View rows;    // "table columns" to columns, as a dump shows them
  size_t unstable = 0;  // cache records in another state than stable
  // Records that are damaged, have no counterpart, point at nothing, or are pointed at by nobody
  // though no controller knows it.
  std::vector<std::string> faults;
};
StoredState storedState(const Pipeline& pipeline, const std::string& stateDirectory);

}  // namespace TestSupport
