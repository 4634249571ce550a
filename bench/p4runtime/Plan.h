// The measurements to make.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Bench {

// How requests are sent: so many updates in each, from so many callers at once.
struct Load {
  size_t batch = 1;
  size_t callers = 1;
  friend bool operator==(const Load&, const Load&) = default;
};
Load loadOf(const std::string& text);  // "100x4"; throws std::invalid_argument
std::string textOf(const Load& load);  // "100 x 4"

struct Plan {
  std::string pipelineFile;                     // of the router example
  std::string exactPipelineFile;                // of one table, for writes
  std::vector<uint64_t> tables{10000, 100000};  // entries, ascending
  std::vector<Load> loads{{1, 1}, {10, 1}, {100, 1}, {1000, 1}, {100, 4}};
  std::vector<std::string> operations{"write", "read", "profiles", "readers"};
  size_t runs = 3;                // of writes; each figure is their median
  uint64_t references = 1000000;  // entries that name groups; 0: none
  size_t readers = 300;           // beside a writer
  double effort = 1;              // share of the usual number of requests

  bool wants(const std::string& operation) const;
  size_t requests(size_t batch) const;  // of one kind at one table size
  std::vector<size_t> batches() const;  // of single callers
  // Very large tables are written in large batches only: others take too long.
  bool writes(const Load& load, uint64_t table) const;
  uint64_t updates(const Load& load, uint64_t table) const;  // of one kind in one run
};

}  // namespace Bench
