// See Measure.h.
#include "bench/p4runtime/Measure.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>

#include "bench/p4runtime/Writing.h"

namespace Bench {
namespace {

using namespace TestSupport;

// So many requests go to one target before the other's turn: other work of the machine
// slows both alike.
constexpr size_t turn = 10;

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
        tested_(plan.pipelineFile,
                {.routes = static_cast<int64_t>(plan.tables.back() + spare(plan))}),
        empty_(tested_.memory()) {}

  Results results() {
    for (const uint64_t table : plan_.tables) {
      progress(fmt::format("{} entries: filling", table));
      TableFigures figures{.table = table, .fillRate = filled(table)};
      figures.memory = grownSince(empty_, tested_.memory());
      for (const size_t batch : plan_.batches) measureWrites(table, batch);
      if (plan_.wants("read")) measureReads(table);
      progress(fmt::format("{} entries: restart", table));
      figures.restartSeconds = tested_.restartSeconds();
      results_.tables.push_back(figures);
    }
    progress("");
    return std::move(results_);
  }

 private:
  // Inserts measured at one size stand in the table until they are deleted.
  static uint64_t spare(const Plan& plan) {
    uint64_t most = 0;
    for (const size_t batch : plan.batches) {
      most = std::max<uint64_t>(most, plan.requests(batch) * batch);
    }
    return most + 1000;
  }

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

  void measureWrites(uint64_t table, size_t batch) {
    const size_t count = plan_.requests(batch);
    const auto wanted = [&](const char* operation, const MadeUpdate& update) {
      const Requests requests = requestsOf(tested_.controller(), count, batch, update);
      Line line{.table = table, .batch = batch, .operation = operation};
      progress(fmt::format("{} entries: {} in batches of {}", table, operation, batch));
      writeByTurns(requests, line);
      if (plan_.wants(operation)) results_.lines.push_back(std::move(line));
    };
    if (plan_.wants("modify")) {
      // Spread over the table, no key twice a batch; never the nexthop that is there already.
      ++modification_;
      wanted("modify", [&](uint64_t i) {
        const uint64_t nexthop = 2 + (i + modification_) % 1000;
        return modifyOf(tested_.route(spread(i, table), static_cast<uint32_t>(nexthop)));
      });
    }
    if (!plan_.wants("insert") && !plan_.wants("delete")) return;
    wanted("insert", [&](uint64_t i) { return insertOf(tested_.route(table + i, 1)); });
    wanted("delete", [&](uint64_t i) { return deleteOf(tested_.route(table + i, 1)); });
  }

  void writeByTurns(const Requests& requests, Line& line) {
    for (size_t from = 0; from < requests.size(); from += turn) {
      const size_t to = std::min(from + turn, requests.size());
      for (size_t i = from; i < to; ++i)
        line.ceiling.add(written(ceiling_.controller(), requests[i]));
      for (size_t i = from; i < to; ++i) line.agent.add(written(tested_.controller(), requests[i]));
    }
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
  uint64_t modification_ = 0;
  Results results_;
};

}  // namespace

Results measured(const Plan& plan) { return Measurement(plan).results(); }

}  // namespace Bench
