// The cost of readers to a writer, and to the agent's memory.
#pragma once

#include "bench/p4runtime/Plan.h"
#include "bench/p4runtime/Samples.h"

namespace Bench {

struct ReaderResults {
  uint64_t table = 0;
  size_t readers = 0;
  Samples alone;   // Writes of one update
  Samples beside;  // the same while all readers read the whole table, again and again
  double readsPerSecond = 0;
  size_t mostBytes = 0;  // by which the agent's private memory grew meanwhile
  size_t leftBytes = 0;  // and once all of them had gone
};

// On a switch of its own. Throws std::runtime_error when a request fails.
ReaderResults measuredReaders(const Plan& plan);

}  // namespace Bench
