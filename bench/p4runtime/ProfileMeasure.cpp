// See ProfileMeasure.h.
#include "bench/p4runtime/ProfileMeasure.h"

#include <fmt/format.h>

#include <algorithm>

#include "bench/p4runtime/Writing.h"

namespace Bench {
namespace {

using namespace TestSupport;

// The most updates of one kind that are measured at one size of batches.
int64_t mostUpdates(const Plan& plan) {
  size_t most = 0;
  for (const size_t batch : plan.batches()) most = std::max(most, plan.requests(batch) * batch);
  return static_cast<int64_t>(most);
}

// Updates beside each other: direct entries, sets, members and groups, in batches of each size.
class BatchMeasurement {
 public:
  explicit BatchMeasurement(const Plan& plan)
      : plan_(plan),
        tested_(plan.pipelineFile,
                {.routes = mostUpdates(plan),
                 .references = mostUpdates(plan),
                 .members = 2 * mostUpdates(plan) * static_cast<int64_t>(groupSize)}) {}

  std::vector<Line> lines() {
    for (const size_t batch : plan_.batches()) measureBatch(batch);
    return std::move(lines_);
  }

 private:
  // What is measured at one size of batches is gone at the next: a profile takes sets or members,
  // not both at once.
  void measureBatch(size_t batch) {
    measure("direct", batch, [&](uint64_t i) { return insertOf(tested_.route(i, 1)); });
    measure("", batch, [&](uint64_t i) { return deleteOf(tested_.route(i, 1)); });
    measure("one-shot", batch, [&](uint64_t i) { return insertOf(tested_.oneShot(i, setSize)); });
    measure("", batch, [&](uint64_t i) { return deleteOf(tested_.oneShot(i, 0)); });
    measure("member", batch, [&](uint64_t i) { return insertOf(tested_.member(i)); });
    measure("group", batch, [&](uint64_t i) { return insertOf(groupOfSome(batch, i, 0)); });
    measure("regroup", batch, [&](uint64_t i) { return modifyOf(groupOfSome(batch, i, 1)); });
    measure("", batch, [&](uint64_t i) { return deleteOf(tested_.group(i, 0, 0)); });
    measure("", batch, [&](uint64_t i) { return deleteOf(tested_.member(i)); });
  }

  // Group `i` of members that follow each other; `regroup` moves on by one of them.
  p4::v1::ActionProfileGroup groupOfSome(size_t batch, uint64_t i, uint64_t shift) const {
    const uint64_t members = plan_.requests(batch) * batch;
    return tested_.group(i, i * groupSize % (members - groupSize) + shift, groupSize);
  }

  // Operations without a name clear up.
  void measure(const std::string& operation, size_t batch, const MadeUpdate& update) {
    progress(fmt::format("profiles: {} in batches of {}", operation, batch));
    Line line{.batch = batch, .operation = operation};
    const auto requests = requestsOf(tested_.controller(), plan_.requests(batch), batch, update);
    for (const auto& request : requests) line.agent.add(written(tested_.controller(), request));
    if (!operation.empty()) lines_.push_back(std::move(line));
  }

  const Plan& plan_;
  MeasuredSwitch tested_;
  std::vector<Line> lines_;
};

// Seconds for `count` updates in batches of 1,000.
double secondsToWrite(MeasuredSwitch& tested, uint64_t count, const MadeUpdate& update) {
  constexpr uint64_t batch = 1000;
  Samples samples;
  for (uint64_t from = 0; from < count; from += batch) {
    const auto requests = requestsOf(tested.controller(), 1, std::min(batch, count - from),
                                     [&](uint64_t i) { return update(from + i); });
    samples.add(written(tested.controller(), requests[0]));
  }
  return samples.total().count() / 1e6;
}

// Many entries that name few groups.
TableFigures measuredReferences(const Plan& plan) {
  constexpr uint64_t members = groupCount * groupSize;
  MeasuredSwitch tested(plan.pipelineFile, {.references = static_cast<int64_t>(plan.references),
                                            .members = static_cast<int64_t>(2 * members)});
  progress(fmt::format("profiles: {} entries that name groups", plan.references));
  secondsToWrite(tested, members, [&](uint64_t i) { return insertOf(tested.member(i)); });
  secondsToWrite(tested, groupCount,
                 [&](uint64_t i) { return insertOf(tested.group(i, i * groupSize, groupSize)); });
  const Memory before = tested.memory();
  const double seconds = secondsToWrite(tested, plan.references, [&](uint64_t i) {
    return insertOf(tested.toGroup(i, i % groupCount));
  });
  TableFigures figures{.table = plan.references,
                       .fillRate = static_cast<double>(plan.references) / seconds,
                       .memory = grownSince(before, tested.memory())};
  progress("profiles: restart");
  figures.restartSeconds = tested.restartSeconds();
  return figures;
}

}  // namespace

ProfileResults measuredProfiles(const Plan& plan) {
  ProfileResults results{.lines = BatchMeasurement(plan).lines(), .figures = {}};
  if (plan.references > 0) results.figures = measuredReferences(plan);
  progress("");
  return results;
}

}  // namespace Bench
