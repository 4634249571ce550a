// See WriteMeasure.h.
#include "bench/p4runtime/WriteMeasure.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "bench/p4runtime/Writing.h"

namespace Bench {
namespace {

using namespace TestSupport;

constexpr size_t fillingBatch = 1000;
// Agent and ceiling take turns of so many updates or requests, whichever are fewer: other work of
// the machine slows both alike.
constexpr size_t turnUpdates = 10000;
constexpr size_t turnRequests = 100;
constexpr double leastUpdates = 50000;  // of a large batch's run; small tables are written again

// Sends the requests, each once; returns how long that took.
Clock::duration sent(TestController& controller, const Requests& requests, size_t callers,
                     Samples& roundTrips) {
  if (callers == 1) {
    const auto start = Clock::now();
    for (const auto& request : requests) roundTrips.add(written(controller, request));
    return Clock::now() - start;
  }
  std::atomic<size_t> next = 0;
  std::mutex mutex;
  std::exception_ptr failure;
  const auto call = [&] {
    Samples own;
    std::exception_ptr trouble;
    try {
      for (size_t i = next++; i < requests.size(); i = next++) {
        own.add(written(controller, requests[i]));
      }
    } catch (...) {
      trouble = std::current_exception();
      next = requests.size();
    }
    const std::lock_guard lock(mutex);
    roundTrips.add(own);
    if (trouble) failure = trouble;
  };
  const auto start = Clock::now();
  {
    std::vector<std::jthread> threads;
    for (size_t i = 0; i < callers; ++i) threads.emplace_back(call);
  }
  const auto took = Clock::now() - start;
  if (failure) std::rethrow_exception(failure);
  return took;
}

// Page by page: all entries at once may be more than fit into memory.
template <typename Visit>
void forEachEntry(TestController& controller, const p4::v1::TableEntry& query, const Visit& visit) {
  p4::v1::ReadRequest request;
  request.set_device_id(1);
  *request.add_entities()->mutable_table_entry() = query;
  grpc::ClientContext context;
  context.set_deadline(std::chrono::system_clock::now() + requestTimeout);
  const auto reader = controller.stub().Read(&context, request);
  p4::v1::ReadResponse response;
  while (reader->Read(&response)) {
    for (const auto& entity : response.entities()) visit(entity.table_entry());
  }
  const grpc::Status status = reader->Finish();
  if (!status.ok()) throw std::runtime_error("a Read failed: " + status.error_message());
}

class Measurement {
 public:
  explicit Measurement(const Plan& plan)
      : plan_(plan),
        tested_(plan.exactPipelineFile, {.exact = static_cast<int64_t>(plan.tables.back())}),
        query_(tested_.exact(0, 0)) {
    query_.clear_match();
    query_.clear_action();
    results_.runs = plan.runs;
  }

  WriteResults results() {
    warmUp();
    empty_ = tested_.memory();
    for (size_t run = 1; run <= plan_.runs; ++run) {
      for (const uint64_t table : plan_.tables) {
        for (const Load& load : plan_.loads) {
          if (!plan_.writes(load, table)) continue;
          what_ = fmt::format("writes, run {} of {}: {} entries, {}", run, plan_.runs, table,
                              textOf(load));
          measure(table, load);
        }
      }
    }
    progress("");
    return std::move(results_);
  }

 private:
  // The threads and buffers that a switch has only under load are no memory of entries.
  void warmUp() {
    progress("writes: warming up");
    for (int i = 0; i < 20; ++i) {
      hold(fillingBatch);
      hold(0);
    }
  }

  void measure(uint64_t table, const Load& load) {
    const uint64_t updates = plan_.updates(load, table);
    const uint64_t first = table - updates;
    const bool isWhole = updates == table;
    const auto wanted = static_cast<uint64_t>(leastUpdates * plan_.effort);
    const uint64_t times = isWhole ? std::clamp<uint64_t>(wanted / updates, 1, 5) : 1;
    Timing inserts, modifies, deletes;
    for (uint64_t i = 0; i < times; ++i) {
      hold(first);
      phase("insert", load, updates, inserts,
            [&](uint64_t n) { return insertOf(tested_.exact(first + n, round_)); });
      held_ = table;
      ++round_;
      phase("modify", load, updates, modifies,
            [&](uint64_t n) { return modifyOf(tested_.exact(n * (table / updates), round_)); });
      if (i == 0 && isWhole) verify();
      if (isWhole && table == plan_.tables.back()) noteMemory();
      phase("delete", load, updates, deletes, [&](uint64_t n) { return deletionOf(first + n); });
      held_ = first;
    }
    enter(table, load, "insert", inserts);
    enter(table, load, "modify", modifies);
    enter(table, load, "delete", deletes);
  }

  struct Timing {
    Samples agent, ceiling;
    Duration agentTook{}, ceilingTook{};
    uint64_t updates = 0;
  };

  void phase(const char* operation, const Load& load, uint64_t updates, Timing& timing,
             const MadeUpdate& update) {
    progress(fmt::format("{}: {}", what_, operation));
    const uint64_t turn = std::clamp<uint64_t>(turnUpdates / load.batch, 1, turnRequests);
    for (uint64_t from = 0; from < updates; from += turn * load.batch) {
      const Requests requests =
          requestsFor(from, std::min(updates, from + turn * load.batch), load.batch, update);
      timing.ceilingTook += sent(ceiling_.controller(), requests, load.callers, timing.ceiling);
      timing.agentTook += sent(tested_.controller(), requests, load.callers, timing.agent);
    }
    timing.updates += updates;
  }

  // Of the updates [from, to).
  Requests requestsFor(uint64_t from, uint64_t to, size_t batch, const MadeUpdate& update) {
    Requests requests;
    for (; from < to; from += batch) {
      const size_t count = std::min<uint64_t>(batch, to - from);
      requests.push_back(std::move(requestsOf(tested_.controller(), 1, count,
                                              [&](uint64_t n) { return update(from + n); })[0]));
    }
    return requests;
  }

  // A deletion names the key alone.
  p4::v1::Update deletionOf(uint64_t i) const {
    p4::v1::TableEntry entry = tested_.exact(i, 0);
    entry.clear_action();
    return deleteOf(entry);
  }

  // Inserts or deletes until that many entries are there.
  void hold(uint64_t entries) {
    const uint64_t from = std::min(entries, held_), to = std::max(entries, held_);
    const bool grows = entries > held_;
    if (to - from > 10 * fillingBatch) progress(what_ + ": preparing");
    for (uint64_t at = from; at < to; at += fillingBatch) {
      const auto requests = requestsFor(
          at, std::min<uint64_t>(to, at + fillingBatch), fillingBatch,
          [&](uint64_t n) { return grows ? insertOf(tested_.exact(n, round_)) : deletionOf(n); });
      for (const auto& request : requests) written(tested_.controller(), request);
    }
    held_ = entries;
  }

  void enter(uint64_t table, const Load& load, const char* operation, const Timing& timing) {
    auto cell = std::ranges::find_if(results_.cells, [&](const WriteCell& one) {
      return one.table == table && one.load == load && one.operation == operation;
    });
    if (cell == results_.cells.end()) {
      cell = results_.cells.insert(
          cell, {.table = table, .load = load, .operation = operation, .runs = {}});
    }
    const auto rate = [&](Duration took) {
      return static_cast<double>(timing.updates) / (took.count() / 1e6);
    };
    cell->runs.push_back({.rate = rate(timing.agentTook),
                          .ceilingRate = rate(timing.ceilingTook),
                          .median = timing.agent.median(),
                          .ceilingMedian = timing.ceiling.median()});
  }

  // All entries have the values of the last round, and none is missing or unknown.
  void verify() {
    progress(what_ + ": reading all back");
    std::vector<bool> seen(held_);
    uint64_t right = 0;
    forEachEntry(tested_.controller(), query_, [&](const p4::v1::TableEntry& entry) {
      const uint64_t i = tested_.exactNumber(entry);
      const bool isRight = i < held_ && !seen[i] &&
                           entry.action().SerializeAsString() ==
                               tested_.exact(i, round_).action().SerializeAsString();
      if (isRight) seen[i] = true;
      right += isRight;
    });
    if (right != held_) {
      throw std::runtime_error(
          fmt::format("a Read shows {} of {} entries as they were written", right, held_));
    }
  }

  void noteMemory() {
    results_.fullTable = held_;
    results_.memory = grownSince(empty_, tested_.memory());
  }

  const Plan& plan_;
  MeasuredSwitch tested_;
  CeilingProcess ceiling_;
  p4::v1::TableEntry query_;
  Memory empty_;
  std::string what_;
  uint64_t held_ = 0;   // the entries below this number are in the table
  uint64_t round_ = 1;  // of values
  WriteResults results_;
};

}  // namespace

double WriteCell::medianOf(std::vector<double> figures) {
  if (figures.empty()) return 0;
  const auto middle = figures.begin() + static_cast<ptrdiff_t>(figures.size() / 2);
  std::ranges::nth_element(figures, middle);
  return *middle;
}

WriteResults measuredWrites(const Plan& plan) { return Measurement(plan).results(); }

}  // namespace Bench
