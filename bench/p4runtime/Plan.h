// The measurements to make.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Bench {

struct Plan {
  std::string pipelineFile;
  std::vector<uint64_t> tables{10000, 100000, 1000000};  // entries, ascending
  std::vector<size_t> batches{1, 10, 100, 1000};         // updates
  std::vector<std::string> operations{"insert", "modify", "delete", "read", "profiles", "readers"};
  uint64_t references = 1000000;  // entries that name groups; 0: none
  size_t readers = 300;           // beside a writer
  double effort = 1;              // share of the usual number of requests

  bool wants(const std::string& operation) const;
  bool wantsTables() const { return operations != std::vector<std::string>{"readers"}; }
  size_t requests(size_t batch) const;  // of one kind at one table size
};

}  // namespace Bench
