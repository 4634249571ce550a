// The account of a restore: the objects it has brought back and removed.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace P4Runtime {

struct RestoreCounts {
  size_t entries = 0;
  size_t members = 0;
  size_t groups = 0;
  size_t rows = 0;                    // removed: no entry stands for them
  std::vector<std::string> unusable;  // the object, and why the pipeline has no place for it
  friend bool operator==(const RestoreCounts&, const RestoreCounts&) = default;
};

// For standard error: lines, the first about all of it, one for each of the first unusable objects.
std::string toText(const RestoreCounts& counts);

}  // namespace P4Runtime
