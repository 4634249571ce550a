// See Plan.h.
#include "bench/p4runtime/Plan.h"

#include <algorithm>

namespace Bench {

bool Plan::wants(const std::string& operation) const {
  return std::find(operations.begin(), operations.end(), operation) != operations.end();
}

// A 99th percentile wants a hundred round trips at the least; small batches can afford more.
size_t Plan::requests(size_t batch) const {
  const double updates = batch == 1 ? 3000 : batch <= 10 ? 10000 : batch <= 100 ? 30000 : 100000;
  return std::max<size_t>(20, static_cast<size_t>(updates * effort / static_cast<double>(batch)));
}

}  // namespace Bench
