// Tables of routes: how fast they are filled, read, and back after a restart, and their memory.
#pragma once

#include <string>
#include <vector>

#include "bench/p4runtime/Plan.h"
#include "bench/p4runtime/Samples.h"
#include "bench/p4runtime/Targets.h"

namespace Bench {

// One line of the result.
struct Line {
  uint64_t table = 0;  // entries in it
  size_t batch = 0;    // updates a request; for a Read, entries an answer
  std::string operation;
  Samples agent;
  Samples ceiling;  // empty: nothing to compare with

  double rate() const { return agent.perSecond(batch); }  // updates or entries a second
};

struct TableFigures {
  uint64_t table = 0;
  double fillRate = 0;  // inserts a second, in batches of 1,000
  Memory memory;        // beyond that of the empty switch
  double restartSeconds = 0;
};

struct Results {
  std::vector<Line> lines;
  std::vector<TableFigures> tables;
};

// Throws std::runtime_error when a request fails: figures of failed requests say nothing.
Results measured(const Plan& plan);

}  // namespace Bench
