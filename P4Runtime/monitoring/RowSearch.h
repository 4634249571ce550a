// The rows of a table that have a text in them, for the page.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

#include "P4Runtime/monitoring/Observed.h"

namespace P4Runtime {

// Where a search ends, and for how long it may hold the activity lock.
struct SearchLimits {
  size_t matches = 100;
  size_t rows = 200'000;  // looked at
  std::chrono::milliseconds time{2000};
  size_t rowsOfTurn = 500;
};

// Rows whose text has `wanted` in it, whichever letters are capital: {"rows": [{"key", "value"}],
// "looked": rows looked at, "end": "all", "matches", "rows" or "time", whatever ended the search};
// {} when there is no such table.
// Takes the activity lock for turns of a few rows, after all threads that act, and then leaves it
// alone for longer than it has held it: call without the lock. One search runs at a time; another
// one that has waited for all of its time ends with {"end": "busy"}.
std::string rowsJson(const Observed& agent, std::string_view table, std::string_view wanted,
                     const SearchLimits& limits = {});

}  // namespace P4Runtime
