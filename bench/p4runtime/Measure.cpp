// See Measure.h.
#include "bench/p4runtime/Measure.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>

#include "bench/p4runtime/Writing.h"

namespace Bench {
namespace {

using namespace TestSupport;

Clock::duration readOne(TestController& controller, const p4::v1::TableEntry& query) {
  const auto start = Clock::now();
  const ReadOutcome outcome = controller.read(query, requestTimeout);
  const auto took = Clock::now() - start;
  if (outcome.status.ok() && outcome.entries.size() == 1) return took;
  throw std::runtime_error(fmt::format("a Read of one entry answered {} entries, {}",
                                       outcome.entries.size(), outcome.status.error_message()));
}

class Measurement {
 public:
  explicit Measurement(const Plan& plan)
      : plan_(plan),
        tested_(plan.pipelineFile, {.routes = static_cast<int64_t>(plan.tables.back())}),
        empty_(tested_.memory()) {}

  Results results() {
    for (const uint64_t table : plan_.tables) {
      progress(fmt::format("{} entries: filling", table));
      TableFigures figures{.table = table, .fillRate = filled(table)};
      figures.memory = grownSince(empty_, tested_.memory());
      measureReads(table);
      progress(fmt::format("{} entries: restart", table));
      figures.restartSeconds = tested_.restartSeconds();
      results_.tables.push_back(figures);
    }
    progress("");
    return std::move(results_);
  }

 private:
  // Walks all numbers below `size`, far from one to the next.
  static uint64_t spread(uint64_t i, uint64_t size) {
    const uint64_t step = size % 7919 ? 7919 : 7907;  // primes
    return i * step % size;
  }

  double filled(uint64_t table) {
    Samples samples;
    constexpr uint64_t batch = 1000;
    const uint64_t first = entries_;
    while (entries_ < table) {
      const uint64_t count = std::min(batch, table - entries_);
      const auto requests = requestsOf(tested_.controller(), 1, count, [&](uint64_t i) {
        return insertOf(tested_.route(entries_ + i, 1));
      });
      samples.add(written(tested_.controller(), requests[0]));
      entries_ += count;
    }
    return static_cast<double>(entries_ - first) / (samples.total().count() / 1e6);
  }

  void measureReads(uint64_t table) {
    progress(fmt::format("{} entries: reads", table));
    Line single{.table = table, .batch = 1, .operation = "read one"};
    for (size_t i = 0; i < plan_.requests(1); ++i) {
      p4::v1::TableEntry query = tested_.route(spread(i, table), 0);
      single.ceiling.add(readOne(ceiling_.controller(), query));
      query.clear_action();
      single.agent.add(readOne(tested_.controller(), query));
    }
    results_.lines.push_back(std::move(single));

    Line all{.table = table, .batch = table, .operation = "read all"};
    for (int i = 0; i < 3; ++i) {
      const auto start = Clock::now();
      const ReadOutcome outcome = tested_.controller().read(tested_.allRoutes(), requestTimeout);
      all.agent.add(Clock::now() - start);
      if (outcome.entries.size() != table) {
        throw std::runtime_error(fmt::format("a Read of all answered {} of {} entries: {}",
                                             outcome.entries.size(), table,
                                             outcome.status.error_message()));
      }
    }
    results_.lines.push_back(std::move(all));
  }

  const Plan& plan_;
  MeasuredSwitch tested_;
  CeilingProcess ceiling_;
  const Memory empty_;
  uint64_t entries_ = 0;
  Results results_;
};

}  // namespace

Results measured(const Plan& plan) { return Measurement(plan).results(); }

}  // namespace Bench
