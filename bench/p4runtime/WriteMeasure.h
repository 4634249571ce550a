// The speed of writes: inserts, modifies and deletes by one or several callers, into tables of
// several sizes, beside an empty handler that gets the same messages.
#pragma once

#include <string>
#include <vector>

#include "bench/p4runtime/Plan.h"
#include "bench/p4runtime/Samples.h"
#include "bench/p4runtime/Targets.h"

namespace Bench {

// One kind of update under one load, in one run.
struct WriteRun {
  double rate = 0;  // updates a second
  double ceilingRate = 0;
  Duration median{};  // of a request
  Duration ceilingMedian{};

  double share() const { return rate / ceilingRate; }
};

struct WriteCell {
  uint64_t table = 0;  // entries in it, once they are inserted
  Load load;
  std::string operation;  // "insert", "modify", "delete"
  std::vector<WriteRun> runs;

  // The median of a figure over the runs.
  template <typename Figure>
  double median(Figure figure) const {
    std::vector<double> figures;
    for (const WriteRun& run : runs) figures.push_back(figure(run));
    return medianOf(std::move(figures));
  }
  double rate() const {
    return median([](const WriteRun& run) { return run.rate; });
  }
  double share() const {
    return median([](const WriteRun& run) { return run.share(); });
  }

 private:
  static double medianOf(std::vector<double> figures);
};

struct WriteResults {
  std::vector<WriteCell> cells;
  size_t runs = 0;
  // With the largest table full, after it was modified for the last time.
  uint64_t fullTable = 0;
  Memory memory;  // beyond that of the empty switch
};

// On a switch of its own. Throws std::runtime_error when a request fails or a Read shows other
// entries than were written.
WriteResults measuredWrites(const Plan& plan);

}  // namespace Bench
